#include "tarnwell/platform/Color.h"
