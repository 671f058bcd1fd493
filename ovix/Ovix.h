// Everything a service or a client of the Ovix IPC uses.
#pragma once

#include "ovix/Connection.h"
#include "ovix/Listener.h"
#include "ovix/Object.h"
#include "ovix/ServiceName.h"
#include "ovix/Transaction.h"
