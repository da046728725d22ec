// The NATS client library, loaded when the first context of the process asks for a network: processes that stay on
// their machine do not have it.
#pragma once

#include <nats/nats.h>

namespace engine::transport::nats {

#define ENGINE_NATS_FUNCTIONS(FUNCTION)             \
  FUNCTION(nats_GetLastError)                       \
  FUNCTION(natsConnection_Connect)                  \
  FUNCTION(natsConnection_Destroy)                  \
  FUNCTION(natsConnection_GetConnectedUrl)          \
  FUNCTION(natsConnection_GetLastError)             \
  FUNCTION(natsConnection_GetMaxPayload)            \
  FUNCTION(natsConnection_GetServers)               \
  FUNCTION(natsConnection_GetStats)                 \
  FUNCTION(natsConnection_ProcessReadEvent)         \
  FUNCTION(natsConnection_ProcessWriteEvent)        \
  FUNCTION(natsConnection_Publish)                  \
  FUNCTION(natsConnection_SubscribeSync)            \
  FUNCTION(natsMsg_Destroy)                         \
  FUNCTION(natsMsg_GetData)                         \
  FUNCTION(natsMsg_GetDataLength)                   \
  FUNCTION(natsMsg_GetSubject)                      \
  FUNCTION(natsOptions_Create)                      \
  FUNCTION(natsOptions_Destroy)                     \
  FUNCTION(natsOptions_LoadCATrustedCertificates)   \
  FUNCTION(natsOptions_LoadCertificatesChain)       \
  FUNCTION(natsOptions_SetAllowReconnect)           \
  FUNCTION(natsOptions_SetErrorHandler)             \
  FUNCTION(natsOptions_SetEventLoop)                \
  FUNCTION(natsOptions_SetMaxPingsOut)              \
  FUNCTION(natsOptions_SetName)                     \
  FUNCTION(natsOptions_SetPingInterval)             \
  FUNCTION(natsOptions_SetSecure)                   \
  FUNCTION(natsOptions_SetSendAsap)                 \
  FUNCTION(natsOptions_SetServers)                  \
  FUNCTION(natsOptions_SetTimeout)                  \
  FUNCTION(natsOptions_SetUserCredentialsFromFiles) \
  FUNCTION(natsOptions_SetUserInfo)                 \
  FUNCTION(natsStatistics_Create)                   \
  FUNCTION(natsStatistics_Destroy)                  \
  FUNCTION(natsStatistics_GetCounts)                \
  FUNCTION(natsStatus_GetText)                      \
  FUNCTION(natsSubscription_Destroy)                \
  FUNCTION(natsSubscription_GetPending)             \
  FUNCTION(natsSubscription_NextMsg)

// Its functions, by the names that they have there.
struct Library {
#define ENGINE_NATS_POINTER(name) decltype(&::name) name;
  ENGINE_NATS_FUNCTIONS(ENGINE_NATS_POINTER)  // NOLINT(readability-identifier-naming)
#undef ENGINE_NATS_POINTER
};

// The library, loaded by the first call, and for good: its threads may run until the process ends. Throws
// std::runtime_error when it is not there or lacks a function; the next call tries again.
//
// Threads: any.
const Library& Nats();

}  // namespace engine::transport::nats
