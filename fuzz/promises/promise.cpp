#include "promises/promise.h"

namespace zel::fuzz {

void breakPromise(const std::string& what) { throw BrokenPromise("broken promise: " + what); }

}  // namespace zel::fuzz
