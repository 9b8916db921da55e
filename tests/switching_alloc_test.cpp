// A switching call works in stack areas only: no malloc, calloc, realloc or
// operator new may be called from the library's own code while it switches.
// Every allocation of this process passes through the hooks below, which
// count those whose caller lies in the library's code segment. Sanitizer
// builds bring their own allocator and skip the watch.
#include <gtest/gtest.h>

#include <link.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <new>

#include "bench.hpp"

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
extern "C" void *__libc_malloc(size_t size);
extern "C" void *__libc_calloc(size_t count, size_t size);
extern "C" void *__libc_realloc(void *block, size_t size);

namespace {
std::atomic<uintptr_t> codeBegin{0}, codeEnd{0};
std::atomic<int> fromLibrary{0};

void note(const void *caller) {
  const auto at = reinterpret_cast<uintptr_t>(caller);
  if (at >= codeBegin.load() && at < codeEnd.load()) ++fromLibrary;
}

// The executable segment of the object that holds QBVISA_OpMatrix.
int findLibraryCode(dl_phdr_info *info, size_t, void *) {
  const auto target = reinterpret_cast<uintptr_t>(&QBVISA_OpMatrix);
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr) &h = info->dlpi_phdr[i];
    const uintptr_t begin = info->dlpi_addr + h.p_vaddr;
    if (h.p_type == PT_LOAD && (h.p_flags & PF_X) && target >= begin &&
        target < begin + h.p_memsz) {
      codeBegin = begin;
      codeEnd = begin + h.p_memsz;
      return 1;
    }
  }
  return 0;
}
}  // namespace

extern "C" void *malloc(size_t size) noexcept {
  note(__builtin_return_address(0));
  return __libc_malloc(size);
}
extern "C" void *calloc(size_t count, size_t size) noexcept {
  note(__builtin_return_address(0));
  return __libc_calloc(count, size);
}
extern "C" void *realloc(void *block, size_t size) noexcept {
  note(__builtin_return_address(0));
  return __libc_realloc(block, size);
}
void *operator new(size_t size) {
  note(__builtin_return_address(0));
  if (void *block = __libc_malloc(size != 0 ? size : 1)) return block;
  throw std::bad_alloc();
}

TEST(SwitchingAllocationTest, SwitchingCallsAllocateNothing) {
  dl_iterate_phdr(findLibraryCode, nullptr);
  ASSERT_NE(codeEnd.load(), 0u);
  // The watch sees the library's own allocations: its array allocator.
  fromLibrary = 0;
  int32_t **array = alloc2int(0, 2, 3);
  ASSERT_NE(array, nullptr);
  EXPECT_GE(fromLibrary.load(), 1);
  std::free(array[0]);
  free2int(array);

  using qbsim::Model;
  for (Model model : {Model::RK420, Model::RK421, Model::RK422, Model::RK423}) {
    const qbtest::Connection c = qbtest::readyChassis(qbtest::chassisConfig(model));
    std::vector<uint32_t> words = qbtest::wordsFor(c.record->slots[0], {0, 13, 40});
    fromLibrary = 0;
    for (int i = 0; i < 3; ++i)
      ASSERT_EQ(QBVISA_OpMatrix(c.session, 0, words.data(), uint32_t(words.size())), 0);
    EXPECT_EQ(fromLibrary.load(), 0) << qbsim::modelName(model);
  }
}
#endif
