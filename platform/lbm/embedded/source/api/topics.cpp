#include "api/attributes.h"
#include "api/endpoints.h"
#include "api/errors.h"

using engine::api::guarded;
using engine::api::required;

int lbm_rcv_topic_lookup(lbm_topic_t** topic, lbm_context_t* ctx, const char* name, const lbm_rcv_topic_attr_t* attr) {
  return guarded(__func__, [&] {
    engine::api::requireNotNull(name, "name");
    required(topic, "topic") = &required(ctx, "ctx").context->topic(name, engine::api::options(attr));
    return 0;
  });
}

int lbm_src_topic_alloc(lbm_topic_t** topic, lbm_context_t* ctx, const char* name, const lbm_src_topic_attr_t* attr) {
  return guarded(__func__, [&] {
    engine::api::requireNotNull(name, "name");
    required(topic, "topic") = &required(ctx, "ctx").context->topic(name, engine::api::options(attr));
    return 0;
  });
}
