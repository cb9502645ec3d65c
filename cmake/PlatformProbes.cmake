# Feature probes, detected once into one generated header that only the
# portability layer includes.
include(CheckSymbolExists)
include(CheckIncludeFile)
list(APPEND CMAKE_REQUIRED_DEFINITIONS -D_GNU_SOURCE)
list(APPEND CMAKE_REQUIRED_LIBRARIES pthread)
check_include_file(sys/epoll.h SHAREDLIB_HAVE_EPOLL)
check_symbol_exists(accept4 "sys/socket.h" SHAREDLIB_HAVE_ACCEPT4)
check_symbol_exists(pthread_setname_np "pthread.h" SHAREDLIB_HAVE_PTHREAD_SETNAME_NP)
check_symbol_exists(gettid "unistd.h" SHAREDLIB_HAVE_GETTID)
check_symbol_exists(MSG_NOSIGNAL "sys/socket.h" SHAREDLIB_HAVE_MSG_NOSIGNAL)

set(SHAREDLIB_GENERATED_DIR ${CMAKE_CURRENT_BINARY_DIR}/generated)
configure_file(${CMAKE_CURRENT_LIST_DIR}/PlatformConfig.h.in
               ${SHAREDLIB_GENERATED_DIR}/platform/PlatformConfig.h)
