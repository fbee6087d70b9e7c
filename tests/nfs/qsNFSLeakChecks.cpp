// What the leak checker of the sanitizer build forgives in the NFS tests:
// memory that libtirpc itself loses, on paths the library and the tests
// cannot avoid.
//   clnt_create   creation by host name: the port lookup keeps an empty
//                 address string per transport that lacks the program, and
//                 its address cache drops entries without their buffers
//   pmap_set      registration of a test's own program: the decoded address
// The stacks through libtirpc, which has no frame pointers, are only whole
// with the slow unwinder, and only whole stacks let these names match
// without forgiving a leak of the library's own.

extern "C" const char* __asan_default_options() {
    return "fast_unwind_on_malloc=0";
}

extern "C" const char* __lsan_default_suppressions() {
    return "leak:clnt_create_timed\n"
           "leak:pmap_set\n"
           "leak:pmap_unset\n";
}
