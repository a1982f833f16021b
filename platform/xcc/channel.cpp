#include "platform/common/world.h"
