// Counts the allocations of the process that it is loaded into: with those of its children in a
// page of the file that BENCH_COUNTERS names, by itself when there is none.

#include <dlfcn.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>

extern "C" void* __libc_malloc(size_t size);                // NOLINT(bugprone-reserved-identifier)
extern "C" void* __libc_calloc(size_t count, size_t size);  // NOLINT(bugprone-reserved-identifier)
extern "C" void* __libc_realloc(void* old, size_t size);    // NOLINT(bugprone-reserved-identifier)

namespace {

std::uint64_t unused = 0;
std::uint64_t* counter = &unused;

__attribute__((constructor)) void Attach() {
  const char* file = getenv("BENCH_COUNTERS");
  if (file == nullptr) return;
  const int descriptor = open(file, O_RDWR | O_CLOEXEC);
  if (descriptor < 0) return;
  void* page =
      mmap(nullptr, sizeof(std::uint64_t), PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
  close(descriptor);
  if (page != MAP_FAILED) counter = static_cast<std::uint64_t*>(page);
}

void Count() {
  __atomic_fetch_add(counter, 1, __ATOMIC_RELAXED);
}

}  // namespace

extern "C" __attribute__((visibility("default"))) std::uint64_t bench_allocations() {
  return __atomic_load_n(counter, __ATOMIC_RELAXED);
}

// The C library declares these with reserved names for their parameters.
// NOLINTBEGIN(readability-inconsistent-declaration-parameter-name)
extern "C" void* malloc(size_t size) {
  Count();
  return __libc_malloc(size);
}

extern "C" void* calloc(size_t count, size_t size) {
  Count();
  return __libc_calloc(count, size);
}

extern "C" void* realloc(void* old, size_t size) {
  Count();
  return __libc_realloc(old, size);
}
// NOLINTEND(readability-inconsistent-declaration-parameter-name)
