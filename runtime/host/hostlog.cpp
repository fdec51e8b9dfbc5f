#include "hostlog.h"

Q_LOGGING_CATEGORY(lcHostSerial, "hust.host")
