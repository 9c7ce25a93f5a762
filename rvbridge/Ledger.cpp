#include "rvbridge/Ledger.h"
