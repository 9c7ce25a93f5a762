#pragma once

#include "rv/error/RvStatus.h"
