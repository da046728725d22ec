#include <dlfcn.h>

#include <string>
#include <string_view>

#include "domain.h"
#include "transport_choice.h"
#include "zq/posix/file.h"

namespace {

bool g_isMissing = false;

class ClientLibrary : public engine_test::EngineTest {
 protected:
  void SetUp() override {
    if (!engine_test::OnHostOnly()) {
      GTEST_SKIP() << "this process has used the network already";
    }
  }
  ~ClientLibrary() override { g_isMissing = false; }
};

TEST_F(ClientLibrary, IsNotLoadedByContextsOfOneMachine) {
  const engine_test::Driven context;
  EXPECT_THAT(zq::posix::ReadFile("/proc/self/maps", std::size_t{1} << 24), Not(testing::HasSubstr("libnats")));
}

TEST_F(ClientLibrary, ThatIsMissingFailsContextsOfTheNetworkWithWhatToDo) {
  g_isMissing = true;
  auto* const attr = engine_test::MakeAttributes(lbm_context_attr_create, lbm_context_attr_str_setopt, {});
  for (const char* transport : {"nats", "host,nats"}) {
    ASSERT_EQ(0, lbm_context_attr_str_setopt(attr, "transport", transport));
    lbm_context_t* context = nullptr;
    EXPECT_EQ(LBM_EOP, engine_test::ErrorOf(lbm_context_create(&context, attr, nullptr, nullptr)));
    EXPECT_THAT(lbm_errmsg(), AllOf(testing::ContainsRegex("libnats\\.so\\.[0-9.]+: .*No such file"),
                                    testing::HasSubstr("Install it")));
  }
  EXPECT_EQ(0, lbm_context_attr_delete(attr));
  const engine_test::Driven near;
}

}  // namespace

// Stands before the system's own: as if the client library were not installed.
extern "C" void* dlopen(const char* file, int flags) {
  static const auto real = reinterpret_cast<decltype(&dlopen)>(::dlsym(RTLD_NEXT, "dlopen"));
  const bool isMissing = g_isMissing && file != nullptr && std::string_view(file).starts_with("libnats");
  return real(isMissing ? "missing" : file, flags);
}
