// On which transport the tests of the whole engine run: that of the variable LBM_TEST_TRANSPORT, or the default.
#pragma once

namespace engine_test {

// Whether it is the default: then nothing but memory is shared with peers, and no other thread works for a context.
bool OnHostOnly();

// Whether messages travel by the network alone. Then a peer that stands still blocks nobody for long: the server keeps
// what is for it.
bool OverNetwork();

}  // namespace engine_test
