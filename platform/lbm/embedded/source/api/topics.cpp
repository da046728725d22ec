#include "api/attributes.h"
#include "api/endpoints.h"
#include "api/errors.h"

using engine::api::Guarded;
using engine::api::Required;

int lbm_rcv_topic_lookup(lbm_topic_t** topic, lbm_context_t* ctx, const char* name, const lbm_rcv_topic_attr_t* attr) {
  return Guarded(__func__, [&] {
    engine::api::RequireNotNull(name, "name");
    Required(topic, "topic") = &Required(ctx, "ctx").context->Topics().Find(name, engine::api::CreationOptions(attr));
    return 0;
  });
}

int lbm_src_topic_alloc(lbm_topic_t** topic, lbm_context_t* ctx, const char* name, const lbm_src_topic_attr_t* attr) {
  return Guarded(__func__, [&] {
    engine::api::RequireNotNull(name, "name");
    Required(topic, "topic") = &Required(ctx, "ctx").context->Topics().Find(name, engine::api::CreationOptions(attr));
    return 0;
  });
}
