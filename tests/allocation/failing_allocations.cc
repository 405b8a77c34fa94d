#include "tests/allocation/failing_allocations.h"

#include <stdlib.h>
#include <sys/mman.h>

#include <atomic>
#include <cstddef>
#include <limits>
#include <new>

namespace {

constexpr long kNever = std::numeric_limits<long>::max();

// Constant initialisation: operator new runs before any constructor of this program.
constinit thread_local long left = kNever;
constinit thread_local Failing mode = Failing::kOnce;
constinit std::atomic<long> live{0};

// Shared with child processes.
std::atomic<bool>* reached = nullptr;

bool Fails() {
  if (left == kNever || --left > 0) return false;
  left = mode == Failing::kOnce ? kNever : 1;
  if (reached != nullptr) *reached = true;
  return true;
}

void* Allocate(std::size_t size, std::size_t alignment) {
  if (Fails()) return nullptr;
  if (size == 0) size = 1;
  void* memory = nullptr;
  if (alignment <= alignof(std::max_align_t)) {
    memory = malloc(size);
  } else if (posix_memalign(&memory, alignment, size) != 0) {
    memory = nullptr;
  }
  if (memory != nullptr) ++live;
  return memory;
}

void* AllocateOrThrow(std::size_t size, std::size_t alignment) {
  while (true) {
    void* memory = Allocate(size, alignment);
    if (memory != nullptr) return memory;
    const std::new_handler handler = std::get_new_handler();
    if (handler == nullptr) throw std::bad_alloc();
    handler();
  }
}

void Release(void* memory) {
  if (memory == nullptr) return;
  --live;
  free(memory);
}

constexpr std::size_t kUsual = alignof(std::max_align_t);

}  // namespace

FailingAllocations::FailingAllocations(long first, Failing failing) {
  if (reached == nullptr) {
    void* shared =
        mmap(nullptr, sizeof(*reached), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) abort();
    reached = ::new (shared) std::atomic<bool>;
  }
  *reached = false;
  mode = failing;
  left = first;
}

FailingAllocations::~FailingAllocations() {
  left = kNever;
}

bool FailingAllocations::Reached() {
  return *reached;
}

long LiveAllocations() {
  return live;
}

// The forms for arrays and sizes that the standard library derives from these are derived from
// them here too.
void* operator new(std::size_t size) {
  return AllocateOrThrow(size, kUsual);
}
void* operator new[](std::size_t size) {
  return AllocateOrThrow(size, kUsual);
}
void* operator new(std::size_t size, std::align_val_t alignment) {
  return AllocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment) {
  return AllocateOrThrow(size, static_cast<std::size_t>(alignment));
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size, kUsual);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size, kUsual);
}
void* operator new(std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return Allocate(size, static_cast<std::size_t>(alignment));
}
void* operator new[](std::size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return Allocate(size, static_cast<std::size_t>(alignment));
}
void operator delete(void* memory) noexcept {
  Release(memory);
}
void operator delete[](void* memory) noexcept {
  Release(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  Release(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  Release(memory);
}
void operator delete(void* memory, std::align_val_t) noexcept {
  Release(memory);
}
void operator delete[](void* memory, std::align_val_t) noexcept {
  Release(memory);
}
void operator delete(void* memory, std::size_t, std::align_val_t) noexcept {
  Release(memory);
}
void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept {
  Release(memory);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
  Release(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
  Release(memory);
}
