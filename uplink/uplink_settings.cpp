#include "uplink/uplink_settings.h"
