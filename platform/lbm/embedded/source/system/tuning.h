// Devices that exist for speed alone. Each can be left out when the engine is built for a benchmark that weighs it; the
// library always has them all.
#pragma once

namespace engine::tuning {

#ifdef ENGINE_WITHOUT_BUSY_WORD
inline constexpr bool kBusyWord = false;
#else
inline constexpr bool kBusyWord = true;     // a busy consumer spares its producers the sequentially consistent store
#endif

#ifdef ENGINE_WITHOUT_BIASED_MUTEX
inline constexpr bool kBiasedMutex = false;
#else
inline constexpr bool kBiasedMutex = true;  // publishing threads own their context's mutex
#endif

#ifdef ENGINE_WITHOUT_POLL_BACKOFF
inline constexpr bool kPollBackoff = false;
#else
inline constexpr bool kPollBackoff = true;  // a consumer that keeps up pauses between polls
#endif

#ifdef ENGINE_WITHOUT_PREFETCH
inline constexpr bool kPrefetch = false;
#else
inline constexpr bool kPrefetch = true;     // a producer fetches the cache lines ahead of it
#endif

#ifdef ENGINE_WITHOUT_YIELD
inline constexpr bool kYieldBeforeParking = false;
#else
inline constexpr bool kYieldBeforeParking = true;  // a context woken often yields once before it parks
#endif

}  // namespace engine::tuning
