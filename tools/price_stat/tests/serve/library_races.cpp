// The HTTP library (0.11) is not built with the sanitizer, which does not see that its static variables are ready
// before other threads look at them. Code of ours that it calls is looked at as ever. The name is the sanitizer's.

// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() { return "called_from_lib:libcpp-httplib.so\n"; }
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)
