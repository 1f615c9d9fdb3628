#include "support/directChip.h"
