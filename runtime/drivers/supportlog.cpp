#include "supportlog.h"

Q_LOGGING_CATEGORY(lcDriverSupport, "hust.support")
