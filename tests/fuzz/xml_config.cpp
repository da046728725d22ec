// The configuration of a client: what is read can be looked up, and what is refused says where and why.
#include "harness/input.h"
#include "harness/oracle.h"
#include "ps_common/config/config.h"

namespace fuzz {
namespace {

// Visits every element.
void Visit(const ps_ns::Config& config, const std::string& name) {
  std::vector<std::string> children;
  try {
    children = config.GetChildNames(name);
    const auto node = config.GetCompositeNode(name);
    config.GetValue(name);
    config.FindMisspelling(name, "attribute");
    node->GetAttrValue<std::string>("attribute", "");
    node->GetAttrValue<bool>("flag", false);
  } catch (const boost::property_tree::ptree_bad_path&) {  // a name with a dot cannot be reached
    return;
  } catch (const std::runtime_error&) {  // no such flag
  }
  for (const std::string& child : children) {
    Visit(config, name + '.' + child);
  }
}

void Read(Input& input) {
  const std::string root = input.ConsumeBool() ? "PSConfig" : "";
  const std::string text = input.ConsumeRemainingBytesAsString();
  try {
    const auto config = ps_ns::Config::Parse(text, "input", root);
    Require(root.empty() || config->GetRoot() == root, "the root is the one that was asked for");
    Visit(*config, config->GetRoot());
  } catch (const ps_ns::ConfigError& error) {
    Require(std::string_view(error.what()).starts_with("input:"), "a refusal names the file");
  }
}

}  // namespace
}  // namespace fuzz

FUZZ_WITH(fuzz::Read)
