#include "rvbridge/Frame.h"
