// The process-wide locks of the RPC transport (qsRPCWrappers.cpp), visible
// to the library and its tests only.
#pragma once

#include "ZCriticalSection.h"

// Serialises client creation by address: the C library's creation path (its
// port-mapper query and the global rpc_createerr) is not safe to run
// concurrently.  Creation by host name does not take it.
extern ZCriticalSection g_ClientCreateCS;

// Serialises the one-time fill of the machine name of AUTH_UNIX credentials.
extern ZCriticalSection g_RPCAuthCritSect;
