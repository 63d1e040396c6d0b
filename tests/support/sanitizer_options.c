/* Linked into every test executable: a huge allocation that a test asks for on purpose must come back as
   NULL under the sanitizers too, as it does without them. */
__attribute__((used, visibility("default"))) const char* __asan_default_options(void)
{
    return "allocator_may_return_null=1";
}
__attribute__((used, visibility("default"))) const char* __tsan_default_options(void)
{
    return "allocator_may_return_null=1";
}
