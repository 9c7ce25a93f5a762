#pragma once

/// Everything of the room: services and clients in a few lines. A C program gets the C interface.
#ifdef __cplusplus
#include "kvx/ChangeRecord.h"
#include "kvx/Changes.h"
#include "kvx/Client.h"
#include "kvx/Error.h"
#include "kvx/Follow.h"
#include "kvx/Message.h"
#include "kvx/Record.h"
#include "kvx/RowStream.h"
#include "kvx/Service.h"
#include "kvx/ServiceName.h"
#include "kvx/Stamp.h"
#include "kvx/Value.h"
#else
#include "kvx/CInterface.h"
#endif
