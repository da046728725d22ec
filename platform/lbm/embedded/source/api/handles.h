// What the handles of the C interface hold.
#pragma once

#include <lbm/lbm.h>

#include <memory>

#include "core/context.h"
#include "core/event_queue.h"
#include "system/process_bound.h"

struct lbm_context_t_stct : engine::ProcessBound {
  std::shared_ptr<engine::core::Context> context;
  std::shared_ptr<lbm_context_t_stct> self;  // until it is deleted
};

struct lbm_event_queue_t_stct : engine::ProcessBound {
  std::shared_ptr<engine::core::EventQueue> queue;
  std::unique_ptr<engine::core::OptionRows> optionRows;
};

// What a context made, and the context itself, which has to delete it.

struct lbm_src_t_stct : engine::ProcessBound {
  std::shared_ptr<engine::core::Context> context;
  std::shared_ptr<engine::core::Source> source;
};

struct lbm_rcv_t_stct : engine::ProcessBound {
  std::shared_ptr<engine::core::Context> context;
  engine::core::OpenReceiver opened;
};

struct lbm_request_t_stct : engine::ProcessBound {
  std::shared_ptr<engine::core::Context> context;
  std::shared_ptr<engine::core::Request> request;
};
