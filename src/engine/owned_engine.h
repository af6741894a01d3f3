// An engine that goes with its owner.
#pragma once

#include <memory>

#include "speechenhance/speechenhance.h"

namespace se {

struct DestroyEngine {
  void operator()(SEInstance* engine) const { se_destroy(engine); }
};
using OwnedEngine = std::unique_ptr<SEInstance, DestroyEngine>;

}  // namespace se
