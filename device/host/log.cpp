#include "device/log.h"
