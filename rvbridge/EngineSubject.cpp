#include "rvbridge/EngineSubject.h"
