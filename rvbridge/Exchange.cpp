#include "rvbridge/Exchange.h"
