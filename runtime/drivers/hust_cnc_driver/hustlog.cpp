#include "hustlog.h"

Q_LOGGING_CATEGORY(lcHustDriver, "hust.driver")
