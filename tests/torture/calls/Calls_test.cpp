#include <algorithm>
#include <cerrno>
#include <csignal>
#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <link.h>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gmock/gmock.h>

#include "tests/support/TemporaryFolder.h"
#include "tests/torture/Workload.h"

/// \file
/// In a program of its own, with a library whose functions tell when they are entered, also where
/// one is compiled into another.

namespace {

// The functions that were entered, of this process and its children. A table of addresses with a
// place for each by its lower bits, or behind.
constexpr std::size_t places = 1U << 16;
void** entered = nullptr;

std::size_t placeOf(const void* function) {
  return (reinterpret_cast<std::size_t>(function) >> 2U) * 0x9E3779B1U % places;
}

bool isEntered(const void* function) {
  for (std::size_t at = placeOf(function);; at = (at + 1) % places) {
    const void* const present = __atomic_load_n(&entered[at], __ATOMIC_RELAXED);
    if (present == nullptr || present == function) {
      return present != nullptr;
    }
  }
}

bool isObject(const void* address) {
  Dl_info info = {};
  void* entry = nullptr;
  return dladdr1(address, &info, &entry, RTLD_DL_SYMENT) != 0 && entry != nullptr &&
         ELF64_ST_TYPE(static_cast<const ElfW(Sym)*>(entry)->st_info) == STT_OBJECT;
}

// Null: nothing is traced.
int statusOf(const Workload& work, const char* trace) {
  const pid_t child = fork();
  if (child == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    constexpr rlimit noDumps = {0, 0};
    setrlimit(RLIMIT_CORE, &noDumps);
    clearenv();
    setenv("PATH", "/usr/bin:/bin", 1);
    setenv("QVX_DBG_CODEPAGE", "ISO-8859-1", 1);
    if (trace != nullptr) {
      setenv("GDIA_ID", "root", 1);
      setenv("QVX_DBG_TRACE", trace, 1);
    }
    const int none = memfd_create("streams", 0);
    for (const int stream : {0, 1, 2}) {
      dup2(none, stream);
    }
    try {
      work.work();
    } catch (...) {
      _exit(100);
    }
    _exit(0);
  }
  int status = -1;
  while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::vector<std::string> exportedNames() {
  std::vector<std::string> names;
  std::ifstream list(CUL_SYMBOLS);
  for (std::string line; std::getline(list, line);) {
    names.push_back(line.substr(0, line.find(' ')));
  }
  return names;
}

// Tables of virtual functions, what tells of types, guards.
bool isNoFunction(const std::string& name) {
  return name.starts_with("_ZT") || name.starts_with("_ZGV");
}

// What cannot be called, or cannot tell.
constexpr std::string_view exempt[] = {
    // They would delete objects of classes that are nothing but bases of others.
    "_ZN15MemoryAllocatorD0Ev",
    "_ZN19CUL_Event_SemaphoreD0Ev",
    "_ZN20CUL_Critical_SectionD0Ev",
    "_ZN9StdThreadD0Ev",
    "_ZN18DebuggerParametersD0Ev",
    // In assembler; called by "recovery", which does not work without.
    "_ZN9StdThread7_setjmpEv",
};

}  // namespace

extern "C" {
void __cyg_profile_func_enter(void* function, void*);
void __cyg_profile_func_exit(void*, void*);

void __cyg_profile_func_enter(void* function, void*) {
  if (entered == nullptr) {
    return;
  }
  for (std::size_t at = placeOf(function);; at = (at + 1) % places) {
    void* present = nullptr;
    if (__atomic_compare_exchange_n(&entered[at], &present, function, false, __ATOMIC_RELAXED,
                                    __ATOMIC_RELAXED) ||
        present == function) {
      return;
    }
  }
}

void __cyg_profile_func_exit(void*, void*) {}
}

TEST(Workloads, TogetherCallEveryExportedFunction) {
  void* const memory = mmap(nullptr, places * sizeof(void*), PROT_READ | PROT_WRITE,
                            MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(memory, MAP_FAILED);
  const TemporaryFolder folder;
  prepareForWork(folder.path());
  entered = static_cast<void**>(memory);
  for (const Workload& work : allWorkloads()) {
    const std::string traceFile = folder.file("trace") + ",ALL,1";
    for (const char* const trace :
         {traceFile.c_str(), "stderr,ALL", static_cast<const char*>(nullptr)}) {
      EXPECT_EQ(statusOf(work, trace), work.ends < 0 ? 0 : work.ends) << work.name;
    }
  }
  void* const library = dlopen("libcul.so.1", RTLD_NOW | RTLD_NOLOAD);
  ASSERT_NE(library, nullptr);
  std::vector<std::string> missing;
  std::vector<std::string> absent;
  for (const std::string& name : exportedNames()) {
    if (isNoFunction(name) || std::ranges::find(exempt, name) != std::end(exempt)) {
      continue;
    }
    const void* const inLibrary = dlsym(library, name.c_str());
    if (inLibrary == nullptr) {
      absent.push_back(name);
      continue;
    }
    // One that is compiled into this program, too, is called here.
    const void* const here = dlsym(RTLD_DEFAULT, name.c_str());
    if (!isObject(inLibrary) && !isEntered(inLibrary) && (here == nullptr || !isEntered(here))) {
      missing.push_back(name);
    }
  }
  EXPECT_THAT(missing, testing::IsEmpty());
  EXPECT_THAT(absent, testing::IsEmpty());
}
