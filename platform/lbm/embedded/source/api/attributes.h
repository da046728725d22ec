// What the attribute objects of the C interface hold.
#pragma once

#include <lbm/lbm.h>

#include "options/option_set.h"

namespace engine::api {

// The options to create an object with: those of the attributes, or the process's defaults for null.
OptionSet CreationOptions(const lbm_context_attr_t* attr);
OptionSet CreationOptions(const lbm_src_topic_attr_t* attr);
OptionSet CreationOptions(const lbm_rcv_topic_attr_t* attr);
OptionSet CreationOptions(const lbm_event_queue_attr_t* attr);

}  // namespace engine::api
