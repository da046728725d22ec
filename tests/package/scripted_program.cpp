// The smallest test of a client: the messaging library refuses what the script says.
#include <lbm_scripted/lbm_scripted.h>
#include <lbm/lbm_cpp>

#include <iostream>

int main() {
  lbm::Context context((lbm::ContextAttributes()));
  lbm_scripted::Script("lbm_rcv_create", lbm_scripted::Failure(LBM_ENOMEM, "no room"));
  try {
    const lbm::ReceiverTopic topic(context, "topic", lbm::ReceiverTopicAttributes());
    const lbm::Receiver receiver(context, topic, [](const lbm::Message&) {});
  } catch (const lbm::LbmError& error) {
    const bool fromScript = std::string(error.what()).find("no room") != std::string::npos;
    std::cerr << (fromScript ? "" : error.what());
    return fromScript ? 0 : 1;
  }
  std::cerr << "the receiver was created against the script\n";
  return 1;
}
