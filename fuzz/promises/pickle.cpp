#include <bit>

#include "promises/plain_pickle.h"
#include "promises/promises.h"

// Its types have no linkage: to see them, this translation unit takes the place of the library's own.
#include "readers/pytorch_pickle.cpp"

namespace zel::fuzz {
namespace {

void promiseSame(const PickleValue& actual, const PlainPickle& expected) {
  promise(unsigned(actual.kind()) == expected.kind, "kinds are the reference's");
  promise(actual.i() == expected.i, "integers are the reference's");
  promise(std::bit_cast<std::uint64_t>(actual.f()) == std::bit_cast<std::uint64_t>(expected.f),
          "floats are the reference's, bit by bit");
  promise(actual.s() == expected.s && actual.module() == expected.module && actual.name() == expected.name,
          "texts are the reference's");
  std::size_t items = expected.items.size();
  std::size_t pairs = expected.values.size();
  for (const PickleCell* cell = actual.children(); cell != nullptr; cell = cell->before()) {
    if (cell->key() != nullptr) {
      promise(pairs-- > 0, "no more pairs than the reference");
      promise(cell->key()->value.s() == expected.keys[pairs], "keys are the reference's");
      promiseSame(cell->value, expected.values[pairs]);
    } else {
      promise(items-- > 0, "no more items than the reference");
      promiseSame(cell->value, expected.items[items]);
    }
  }
  promise(items == 0 && pairs == 0, "as many items and pairs as the reference");
  if (actual.is(PickleKind::Tuple) || actual.is(PickleKind::Tensor)) {
    promise(actual.itemCount() == expected.items.size(), "items are counted right");
    for (std::uint64_t k = 0; k < std::min<std::uint64_t>(PickleValue::kEarlyItems, actual.itemCount());
         ++k) {
      promise(unsigned(actual.item(k).kind()) == expected.items[k].kind, "the first items are found");
    }
  }
}

}  // namespace

void checkPickle(std::string_view input) {
  PickleVM machine(input);
  const Status status = machine.value();
  promiseKnownStatus(status, {Code::Unsupported, Code::Corrupted}, "torch: pickle ");
  const PlainPickleRun expected = runPlainPickle(input);
  if (expected.gaveUp) return;
  fuzz::promiseSame(status, expected.status);
  if (!status.ok()) return;
  promise(machine.stack().size() == expected.stack.size(), "the stack is as high as the reference's");
  for (std::size_t k = 0; k < expected.stack.size(); ++k)
    promiseSame(machine.stack()[k], expected.stack[k]);
}

}  // namespace zel::fuzz
