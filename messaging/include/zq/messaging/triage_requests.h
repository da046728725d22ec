// What both ends of a triage request agree on beside the messages: where it is sent, and how it is wrapped.
#pragma once

#include <string>

namespace zq::messaging::triage {

enum LBMContext : int;  // of the schema

// Environment variables of a process that name where it runs, and what stands before its topics.
inline constexpr char kEnvironmentVariable[] = "CHEF_ENVIRONMENT";
inline constexpr char kDataCenterVariable[] = "DATA_CENTER";
inline constexpr char kTopicPrefixVariable[] = "LBM_TRIAGE_HANDLER_TOPIC_PREFIX";

// The form in which the names of environments, data centres and contexts are compared: byte by byte as the C library's
// locale says.
std::string UpperCase(std::string text);

// The topic that reaches every process of an environment, and the one for those in one of its data centres. The names
// may be in any case; the prefix is taken as it is.
std::string ActionTopic(const std::string& prefix, const std::string& environment);
std::string ActionTopic(const std::string& prefix, const std::string& environment, const std::string& dataCenter);

// Requests as they are sent. The id may be any bytes; the answer to the request carries it.
std::string TestRequest(const std::string& requestId);
std::string NakKillRequest(LBMContext contexts, bool enable, const std::string& requestId);

}  // namespace zq::messaging::triage
