// The layer's log statements. Log analysis knows each by its place, so the places are fixed.
#pragma once

#include "zq/logging/logger.h"

namespace lbm::statement {

inline constexpr char kFile[] = "lbm/include/lbm/lbm_cpp";

inline constexpr int kErrorThrown = 65;
inline constexpr int kErrorLogged = 71;
inline constexpr int kRetriesUsedUp = 179;
inline constexpr int kWouldBlock = 188;
inline constexpr int kResponseFailed = 195;
inline constexpr int kNoResponse = 205;
inline constexpr int kContextNameUnreadable = 613;
inline constexpr int kContextCreated = 616;
inline constexpr int kNaksNotDisabled = 713;
inline constexpr int kNaksNotEnabled = 733;
inline constexpr int kReceiverCreating = 1147;
inline constexpr int kReceiverDeleting = 1162;
inline constexpr int kSourceCreating = 2027;
inline constexpr int kSourceDeleting = 2331;
inline constexpr int kSourceDeleted = 2340;
inline constexpr int kTriageDisabled = 2418;
inline constexpr int kTriageNamesMissing = 2431;
inline constexpr int kTriageInitializing = 2438;
inline constexpr int kTriageEventQueueWanted = 2444;
inline constexpr int kTriageThreadUnnamed = 2453;
inline constexpr int kTriageThreadStarted = 2457;
inline constexpr int kTriageNoEventQueue = 2465;
inline constexpr int kTriageRetriesInvalid = 2481;
inline constexpr int kTriageRetryTimeInvalid = 2494;
inline constexpr int kTriageLoopStarting = 2507;
inline constexpr int kTriageLoopStopping = 2510;
inline constexpr int kTriageToggleBegin = 2517;
inline constexpr int kTriageToggleEnd = 2549;
inline constexpr int kTriageWireInvalid = 2561;
inline constexpr int kTriageNoAction = 2569;
inline constexpr int kTriageUnknownRequest = 2588;
inline constexpr int kTriageHandling = 2596;
inline constexpr int kTriageResponding = 2607;
inline constexpr int kTriageException = 2621;
inline constexpr int kTriageData = 2632;
inline constexpr int kTriageEndOfSession = 2637;
inline constexpr int kTriageRequest = 2642;
inline constexpr int kTriageRequestDone = 2646;
inline constexpr int kTriageLoss = 2651;
inline constexpr int kTriageLossBurst = 2656;
inline constexpr int kTriageNoSource = 2661;
inline constexpr int kTriageBeginningOfSession = 2666;
inline constexpr int kTriageRegistering = 2684;
inline constexpr int kTriageReceiverCreated = 2702;
inline constexpr int kTriageReceiversFailed = 2716;
inline constexpr int kTriageReceiversDestroyed = 2732;
inline constexpr int kTriageUnregistering = 2743;

}  // namespace lbm::statement

// A statement of the table. Its place is a name in it.
#define LBM_LOG_FROM(source, level, place, text) \
  ZQLOG_AT(::zq::logging::level, 0, source, ::lbm::statement::kFile, ::lbm::statement::place, text)

// Without a source.
#define LBM_LOG(level, place, text) LBM_LOG_FROM(::zq::logging::ConstSourcePtr(), level, place, text)

// From the triage handler.
#define TRIAGE_LOG(level, place, text) LBM_LOG_FROM(::lbm::details::TriageLogSource(), level, place, text)
