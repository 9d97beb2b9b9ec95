// A host that has put limits on itself: on its memory, and on the system calls that it may make.
#include <gtest/gtest.h>

#include <csignal>
#include <cstddef>
#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "child_process.h"
#include "model_inputs.h"
#include "plugin/plugin_host.h"
#include "support/test_conditions.h"

namespace zel {
namespace {

using test::ModelDirBuilder;
using test::TempDir;

// ---- memory

std::string quoted(const std::string& text) { return '"' + text + '"'; }

constexpr std::uint64_t kGiB = std::uint64_t{1} << 30;

// Both calls in a child that may address so much: "<import code> <message> | <inspect code> <architecture>".
test::ChildResult answersWithin(rlim_t bytes, const std::string& dir, const std::string& out) {
  (void)test::importer();
  return test::inChild([&] {
    const rlimit limit{bytes, bytes};
    if (setrlimit(RLIMIT_AS, &limit) != 0) return std::string("no limit");
    const test::ImportAnswer import = test::importDir(dir, out);
    const test::InspectAnswer inspect = test::inspectDir(dir);
    return std::to_string(import.code) + " " + import.message + " | " + std::to_string(inspect.code) + " " +
           inspect.architecture;
  });
}

test::ChildResult answersIn512MiB(const std::string& dir, const std::string& out) {
  return answersWithin(512 << 20, dir, out);
}

class AmplifyingInputs : public testing::Test {
 protected:
  void SetUp() override {
    if (test::kSanitized) GTEST_SKIP() << "sanitizers need more address space than the limit of this test";
  }
  void expectAnswers(const std::string& dir, const std::string& expected) {
    const test::ChildResult result = answersIn512MiB(dir, temp_ / "out.okv2");
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.text, expected);
    EXPECT_FALSE(std::filesystem::exists(temp_ / "out.okv2"));
  }
  std::string checkpointDir(const std::string& program) const {
    return ModelDirBuilder()
        .noWeights()
        .file("pytorch_model.bin",
              test::ZipBuilder().add("data.pkl", program).add("s", std::string(8, 'x')).build())
        .write(temp_);
  }
  TempDir temp_;
};

constexpr char kOutOfMemory[] = "1 hf convert failed | 1 invalid";
constexpr char kOnlyImportOutOfMemory[] = "1 hf convert failed | 0 llama";

TEST_F(AmplifyingInputs, AHugeSparseConfigEndsWithCodeOne) {
  const std::string dir = ModelDirBuilder().write(temp_);
  std::filesystem::resize_file(dir + "/config.json", kGiB);
  expectAnswers(dir, kOutOfMemory);
}

TEST_F(AmplifyingInputs, AHugeSparseTokenizerJsonEndsWithCodeOne) {
  const std::string dir = ModelDirBuilder().tokenizer().write(temp_);
  std::filesystem::resize_file(dir + "/tokenizer.json", kGiB);
  expectAnswers(dir, kOutOfMemory);
}

TEST_F(AmplifyingInputs, AHugeSparseSideFileEndsWithCodeOne) {
  const std::string dir = ModelDirBuilder().file("generation_config.json", "{}").write(temp_);
  std::filesystem::resize_file(dir + "/generation_config.json", kGiB);
  expectAnswers(dir, kOutOfMemory);
}

TEST_F(AmplifyingInputs, AConfigOfMillionsOfElementsEndsWithCodeOne) {
  std::string config = R"({"model_type":"llama","x":[0)";
  for (int k = 0; k < 7000000; ++k)
    config += ",0";
  expectAnswers(ModelDirBuilder().config(config + "]}").write(temp_), kOutOfMemory);
}

TEST_F(AmplifyingInputs, AShardLargerThanTheAddressSpaceIsAnInputOutputError) {
  const std::string dir = ModelDirBuilder().write(temp_);
  std::filesystem::resize_file(dir + "/model.safetensors", kGiB);
  expectAnswers(dir, "6 safetensors: mmap failed | 0 llama");
}

TEST_F(AmplifyingInputs, APickleOfMillionsOfNonesEndsWithCodeOne) {
  const std::string flood(std::size_t{12} << 20, char(test::Op::NONE));
  expectAnswers(checkpointDir(flood + "."), kOnlyImportOutOfMemory);
}

TEST_F(AmplifyingInputs, APickleOfMillionsOfDuplicatedValuesEndsWithCodeOne) {
  const std::string program =
      test::PickleBuilder().op(test::Op::EMPTY_DICT).repeat(std::size_t{12} << 20, "2").stop();
  expectAnswers(checkpointDir(program), kOnlyImportOutOfMemory);
}

TEST_F(AmplifyingInputs, ALongNameTakenFromTheMemoTenThousandTimesEndsWithCodeOne) {
  using test::Op;
  test::PickleBuilder program;
  program.binunicode(std::string(1 << 16, 'n')).ops({Op::MEMOIZE, Op::POP});
  program.tensor({"", {2}, "s"}).ops({Op::MEMOIZE, Op::POP}).op(Op::EMPTY_DICT);
  const std::string pair = test::PickleBuilder().binget(0).binget(1).op(Op::SETITEM).bytes();
  expectAnswers(checkpointDir(program.repeat(10000, pair).stop()), kOnlyImportOutOfMemory);
}

// 400 KB of lists that are just long enough for their room to be estimated from what is left.
TEST_F(AmplifyingInputs, AConfigOfManyLongListsIsImported) {
  std::string list = "[0";
  for (int k = 0; k < 1024; ++k)
    list += ",0";
  list += "]";
  std::string config = R"({"model_type":"llama","x":[)" + list;
  while (config.size() < 400000)
    config += "," + list;
  const test::ChildResult result =
      answersIn512MiB(ModelDirBuilder().config(config + "]}").write(temp_), temp_ / "out.okv2");
  EXPECT_EQ(result.text, "0  | 0 llama");
}

// 500 KB of objects that are just long enough for it: 13 MB of members, and not a large page for each object.
TEST_F(AmplifyingInputs, AConfigOfManyLongObjectsTakesMemoryForWhatItHolds) {
  std::string object = R"({"":0)";
  for (int k = 0; k < 1024; ++k)
    object += R"(,"":0)";
  object += "}";
  std::string config = R"({"model_type":"llama","x":[)" + object;
  for (int k = 1; k < 100; ++k)
    config += "," + object;
  const std::string dir = ModelDirBuilder().config(config + "]}").write(temp_);
  (void)test::importer();
  const test::ChildResult result = test::inChild([&] {
    rusage before{};
    rusage after{};
    getrusage(RUSAGE_SELF, &before);
    const test::InspectAnswer inspect = test::inspectDir(dir);
    getrusage(RUSAGE_SELF, &after);
    const long kilobytes = after.ru_maxrss - before.ru_maxrss;
    return inspect.architecture +
           (kilobytes < 64 * 1024 ? " within 64 MiB" : " took " + std::to_string(kilobytes) + " KB");
  });
  EXPECT_EQ(result.text, "llama within 64 MiB");
}

// Two lists that begin as if they filled the rest of 45 MB, and would have room for 128 MB each.
TEST_F(AmplifyingInputs, ATokenizerWhoseListsEndEarlyIsImportedWhereTheirRoomDoesNotFit) {
  std::string vocab;
  std::string merges;
  for (int k = 0; k < 1100; ++k) {
    vocab += (k > 0 ? "," : "") + quoted(std::to_string(k)) + ":" + std::to_string(k);
    merges += k > 0 ? R"(,"")" : R"("")";
  }
  const std::string text = R"({"model":{"type":"BPE","vocab":{)" + vocab + R"(},"merges":[)" + merges +
                           R"(]},"x":)" + quoted(std::string(45'000'000, 'x')) + "}";
  const std::string dir = ModelDirBuilder().file("tokenizer.json", text).write(temp_);
  const test::ChildResult result = answersWithin(256 << 20, dir, temp_ / "out.okv2");
  EXPECT_EQ(result.text, "0  | 0 llama");
}

// The limit is no obstacle to an honest model.
TEST_F(AmplifyingInputs, AnOrdinaryModelIsImportedUnderTheSameLimit) {
  const test::ChildResult result =
      answersIn512MiB(test::tokenizerJsonInput().write(temp_), temp_ / "out.okv2");
  EXPECT_EQ(result.text, "0  | 0 llama");
}

// ---- system calls

// All that an import may ask of the kernel: files, memory, and the end of the process.
constexpr int kAllowedCalls[] = {
    SYS_openat, SYS_newfstatat, SYS_fstat,   SYS_read,  SYS_close,     SYS_mmap,   SYS_munmap,
    SYS_brk,    SYS_mprotect,   SYS_madvise, SYS_lseek, SYS_write,     SYS_writev, SYS_ftruncate,
    SYS_mremap, SYS_getdents64, SYS_pipe2,   SYS_fcntl, SYS_fallocate, SYS_splice, SYS_exit_group};

#if defined(__x86_64__)
constexpr unsigned kArchitecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr unsigned kArchitecture = AUDIT_ARCH_AARCH64;
#endif

void reportForbiddenCall(int, siginfo_t* info, void*) {
  char text[] = "system call 000";
  int number = info->si_syscall;
  for (char* digit = text + sizeof text - 2; number > 0; number /= 10)
    *digit-- = char('0' + number % 10);
  (void)!write(STDERR_FILENO, text, sizeof text - 1);
  _exit(98);
}

// From now on every system call that is not listed ends the process with exit code 98.
bool forbidOtherCalls() {
  struct sigaction action {};
  action.sa_sigaction = reportForbiddenCall;
  action.sa_flags = SA_SIGINFO;
  if (sigaction(SIGSYS, &action, nullptr) != 0) return false;
  std::vector<sock_filter> filter = {
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
      BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kArchitecture, 1, 0),
      BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
      BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
  };
  for (const int call : kAllowedCalls) {
    filter.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, unsigned(call), 0, 1));
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
  }
  filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_TRAP));
  const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

class SystemCallFilter : public testing::Test {
 protected:
  void SetUp() override {
    if (test::kSanitized) GTEST_SKIP() << "sanitizers make system calls of their own";
    const test::ChildResult trial =
        test::inChild([] { return std::string(forbidOtherCalls() ? "yes" : "no"); });
    if (trial.text != "yes") GTEST_SKIP() << "this system lets no process filter its own system calls";
  }
};

void expectOnlyListedCalls(const std::string& dir, const std::string& out, const std::string& architecture) {
  (void)test::importer();
  const test::ChildResult result = test::inChild([&] {
    if (!forbidOtherCalls()) return std::string("no filter");
    const std::uint32_t confidence = test::probeConfidence(dir);
    const test::InspectAnswer inspect = test::inspectDir(dir);
    const test::ImportAnswer import = test::importDir(dir, out);
    const test::ImportAnswer again = test::importDir(dir, out);  // over an existing file
    const test::ImportAnswer failed = test::importDir(dir + "/none", out);
    return std::to_string(confidence) + " " + inspect.architecture + " " + std::to_string(import.code) +
           std::to_string(again.code) + std::to_string(failed.code);
  });
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.text, "100 " + architecture + " 002");
}

TEST_F(SystemCallFilter, AnImportOpensReadsMapsAndWritesFilesAndNothingElse) {
  for (const test::NamedInput& input : test::kInputs) {
    SCOPED_TRACE(input.name);
    const TempDir temp;
    expectOnlyListedCalls(input.builder().write(temp), temp / "out.okv2", input.architecture);
  }
}

TEST_F(SystemCallFilter, AnImportOfALongTensorAlsoAsksForRoomAndSplicesFilesThroughAPipe) {
  const TempDir temp;
  const std::string dir = test::ModelDirBuilder()
                              .shard("model.safetensors", test::SafetensorsBuilder().tensor(
                                                              "model.norm.weight", "F32", {512, 1024}))
                              .write(temp);
  expectOnlyListedCalls(dir, temp / "out.okv2", "llama");
}

TEST_F(SystemCallFilter, EndsAProcessThatMakesAnotherCall) {
  const test::ChildResult result = test::inChild([] {
    if (!forbidOtherCalls()) return std::string("no filter");
    (void)!syscall(SYS_getppid);
    return std::string("survived");
  });
  EXPECT_EQ(result.exitCode, 98);
}

}  // namespace
}  // namespace zel
