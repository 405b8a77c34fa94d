// Memory freed in one execution has to be found when the same execution uses it, so a short
// quarantine serves; the default one of 256 MiB makes every allocation a cache miss. Calls of an
// allocation beyond the first few cost more to collect than they tell.
// NOLINTNEXTLINE(bugprone-reserved-identifier): the sanitizer's name
extern "C" const char* __asan_default_options() {
  return "quarantine_size_mb=1:thread_local_quarantine_size_kb=64:malloc_context_size=5:"
         "allocator_release_to_os_interval_ms=-1:max_malloc_fill_size=64";
}
