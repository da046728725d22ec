// What the statistics of this process say.
#pragma once

#include <gtest/gtest.h>

#include "zq/statistics/snapshot.h"

namespace engine_test {

// A field of the only row of that kind, context and, if it is not empty, topic. Fails the test when there is none.
inline zq::statistics::Value ValueOf(const char* kind, const char* context, const char* field, const char* topic = "") {
  const zq::statistics::Snapshot snapshot = zq::statistics::TakeSnapshot();
  const zq::statistics::RowValues* found = nullptr;
  for (const zq::statistics::RowValues* row : snapshot.Of(kind)) {
    if (row->Label("context") == context && (*topic == '\0' || row->Label("topic") == topic)) {
      EXPECT_EQ(nullptr, found) << "two rows of kind " << kind;
      found = row;
    }
  }
  if (found == nullptr || found->Find(field) == nullptr) {
    ADD_FAILURE() << "nothing of kind " << kind << ", context " << context << ", field " << field;
    return {};
  }
  return *found->Find(field);
}

}  // namespace engine_test
