#include "stream/process_wide.h"

#include "nn/quiet_history.h"

const bool se::kLoadingSetsFloatMode = false;

namespace se::stream {
namespace {

// One pointer at a fixed place of every thread: unlike other thread-local variables of a library
// that was loaded late, it is there without an allocation on first use.
#if defined(__GNUC__) && !defined(__EMSCRIPTEN__)
__attribute__((tls_model("initial-exec")))
#endif
thread_local QuietHistory* t_history = nullptr;

}  // namespace

EngineScope::EngineScope(QuietHistory& history) {
  t_history = &history;
}

EngineScope::~EngineScope() {
  t_history = nullptr;
}

}  // namespace se::stream

int se::nn::quiet_history_add(int flag) {
  return stream::t_history->add(flag);
}
