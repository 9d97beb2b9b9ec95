// How the module was built and linked, read from the file itself.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "elf_module.h"
#include "support/test_conditions.h"

namespace zel {
namespace {

using test::ElfModule;

const ElfModule& module() {
  static const ElfModule instance(OKV2_MODULE);
  return instance;
}

TEST(Hardening, MakesRelocatedDataReadOnly) { EXPECT_TRUE(module().segment(PT_GNU_RELRO).has_value()); }

TEST(Hardening, ResolvesEverySymbolAtLoadTime) {
  const bool now = (module().dynamic(DT_FLAGS).value_or(0) & DF_BIND_NOW) != 0 ||
                   (module().dynamic(DT_FLAGS_1).value_or(0) & DF_1_NOW) != 0;
  EXPECT_TRUE(now);
}

TEST(Hardening, HasNoExecutableStack) {
  const auto stack = module().segment(PT_GNU_STACK);
  ASSERT_TRUE(stack.has_value());
  EXPECT_EQ(stack->p_flags & PF_X, 0u);
}

TEST(Hardening, HasNoRelocationsInItsCode) {
  EXPECT_FALSE(module().dynamic(DT_TEXTREL).has_value());
  EXPECT_EQ(module().dynamic(DT_FLAGS).value_or(0) & DF_TEXTREL, 0u);
}

TEST(Hardening, HasNoSegmentThatIsWritableAndExecutable) {
  const auto code = module().segment(PT_LOAD);
  ASSERT_TRUE(code.has_value());
  EXPECT_TRUE(module().everySegment(
      PT_LOAD, [](const Elf64_Phdr& segment) { return (segment.p_flags & (PF_W | PF_X)) != (PF_W | PF_X); }));
}

TEST(Hardening, ProtectsStackFrames) {
  if (test::kSanitized) GTEST_SKIP() << "sanitizers guard the stack themselves";
  EXPECT_THAT(module().imports(), testing::Contains("__stack_chk_fail"));
}

TEST(Hardening, ChecksTheSizesOfBuffersInOptimisedBuilds) {
#if !defined(NDEBUG)
  GTEST_SKIP() << "_FORTIFY_SOURCE needs optimisation";
#elif defined(__clang__)
  GTEST_SKIP() << "the C library's headers fortify no formatted output of C++ for clang";
#else
  if (test::kSanitized) GTEST_SKIP() << "sanitizers check sizes themselves";
  EXPECT_THAT(module().imports(), testing::Contains(testing::AnyOf("__printf_chk", "__fprintf_chk")));
#endif
}

// A search path in the module would let whoever may write there replace the libraries of the host.
TEST(Hardening, CarriesNoSearchPathForLibraries) {
  EXPECT_FALSE(module().dynamic(DT_RPATH).has_value());
  EXPECT_FALSE(module().dynamic(DT_RUNPATH).has_value());
}

}  // namespace
}  // namespace zel
