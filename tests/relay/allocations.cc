#include "tests/relay/allocations.h"

#include <stdlib.h>

#include <algorithm>
#include <array>
#include <new>

namespace {

thread_local std::size_t largest = 0;
thread_local std::array<std::size_t, 64> arrays;
thread_local std::size_t array_count = 0;

void* Allocate(std::size_t size) {
  largest = std::max(largest, size);
  void* memory = malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

void* operator new(std::size_t size) {
  return Allocate(size);
}
void* operator new[](std::size_t size) {
  if (array_count < arrays.size()) arrays[array_count++] = size;
  return Allocate(size);
}
void operator delete(void* memory) noexcept {
  free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept {
  free(memory);
}
void operator delete[](void* memory) noexcept {
  free(memory);
}
void operator delete[](void* memory, std::size_t /*size*/) noexcept {
  free(memory);
}

void Allocations::Forget() {
  largest = 0;
  array_count = 0;
}

std::size_t Allocations::Largest() {
  return largest;
}

std::vector<std::size_t> Allocations::Arrays() {
  return {arrays.begin(), arrays.begin() + static_cast<std::ptrdiff_t>(array_count)};
}
