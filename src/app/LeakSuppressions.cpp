// Under AddressSanitizer the leak check runs at exit. The window system's libraries keep caches
// (fonts, the X connection, the session bus) for the life of the process on purpose; those are
// not leaks of ours. Only allocation stacks that pass through those libraries are left out, and
// no code of ours calls them directly.
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KS_LEAK_CHECKED 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define KS_LEAK_CHECKED 1
#endif

#ifdef KS_LEAK_CHECKED
extern "C" const char* __lsan_default_suppressions()
{
    return "leak:libfontconfig.so\n"
           "leak:libxcb\n"
           "leak:libX11.so\n"
           "leak:libdbus-1.so\n"
           "leak:libQt6XcbQpa.so\n"
           "leak:libqxcb.so\n";
}
#endif
