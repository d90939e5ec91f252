#include "tarnwell/extensions/Strings.h"
