#include "SQliteDbUtil.h"

SQliteDbUtil::SQliteDbUtil() : stopRequested(false) {}
