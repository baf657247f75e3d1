# Every dependency comes from the distribution's packages (see scripts/bootstrap.sh;
# for the Windows cross build, scripts/bootstrap-windows.sh).
find_package(jsoncpp CONFIG REQUIRED)   # every JSON document
find_package(fmt CONFIG REQUIRED)       # type-safe printf-style log formatting
find_package(utf8cpp CONFIG REQUIRED)   # UTF-8 <-> wide conversions
find_package(Threads REQUIRED)
find_package(ZLIB REQUIRED)             # CRC-32 of the scan's archives; the inflate that joins pieces
find_package(PkgConfig REQUIRED)
# Deflate of the scan's archives (libdeflate: whole buffers, fast). Its package
# file only: Debian ships no CMake package for it.
pkg_check_modules(LIBDEFLATE REQUIRED IMPORTED_TARGET libdeflate)
# Reading zip archives: the tests, zepdiag's summary and the benchmarks (the
# module writes its own). Through pkg-config: Debian's CMake package of libzip
# insists on command-line tools that are packaged separately.
pkg_check_modules(LIBZIP REQUIRED IMPORTED_TARGET libzip)
set(ZEP_ZIP_READER_LIBS PkgConfig::LIBZIP)

if(WIN32)
  # SHA-256 and signature checks with Windows' own CNG (bcrypt, crypt32):
  # no OpenSSL is built or shipped there. The rest are the Win32 backend's
  # system libraries (registry and tokens, the console session's user).
  set(ZEP_SYSTEM_LIBS bcrypt crypt32 advapi32 wtsapi32)
else()
  find_package(OpenSSL REQUIRED)        # SHA-256 digests, JWT signatures; zepdiag serve's TLS
  set(ZEP_SYSTEM_LIBS OpenSSL::Crypto)
  # zepdiag serve only, never the module: MQTT and HTTPS uploads.
  pkg_check_modules(MOSQUITTO REQUIRED IMPORTED_TARGET libmosquitto)
  find_package(CURL REQUIRED)
endif()

if(TARGET JsonCpp::JsonCpp)
  set(ZEP_JSONCPP JsonCpp::JsonCpp)
elseif(TARGET jsoncpp_lib)
  set(ZEP_JSONCPP jsoncpp_lib)
else()
  set(ZEP_JSONCPP jsoncpp_static)
endif()

# What the module links, on every system.
set(ZEP_MODULE_LIBS ${ZEP_JSONCPP} fmt::fmt utf8::cpp Threads::Threads PkgConfig::LIBDEFLATE ZLIB::ZLIB ${ZEP_SYSTEM_LIBS})
