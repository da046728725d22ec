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

}  // namespace lbm::statement

// A statement of the table, without a source.
#define LBM_LOG(level, place, text)                                                                                    \
  ZQLOG_AT(::zq::logging::level, 0, ::zq::logging::ConstSourcePtr(), ::lbm::statement::kFile, ::lbm::statement::place, \
           text)
