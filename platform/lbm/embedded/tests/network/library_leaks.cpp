// The NATS client library (3.4) does not free the part of a message that it has read when the connection ends before
// the rest has come. The name is the sanitizer's.
// NOLINTBEGIN(bugprone-reserved-identifier,readability-identifier-naming)
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_suppressions() { return "leak:natsBuf_Create\n"; }
// NOLINTEND(bugprone-reserved-identifier,readability-identifier-naming)
