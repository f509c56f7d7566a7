# Third-party dependencies, all from Debian packages: zlib and jsoncpp, and the Khronos headers.
find_package(Threads REQUIRED)

if(WIN32)
  # zlib comes from libz-mingw-w64-dev; link it statically so the DLLs need no zlib1.dll.
  set(ZLIB_USE_STATIC_LIBS ON)
  find_package(ZLIB REQUIRED)

  # jsoncpp is built from Debian's source package (scripts/fetch-sources puts it in .deps/).
  set(KV_JSONCPP_SOURCE "${CMAKE_SOURCE_DIR}/.deps/jsoncpp" CACHE PATH "jsoncpp source tree")
  if(NOT EXISTS "${KV_JSONCPP_SOURCE}/CMakeLists.txt")
    message(FATAL_ERROR "No jsoncpp sources in ${KV_JSONCPP_SOURCE}: run scripts/fetch-sources")
  endif()
  set(BUILD_SHARED_LIBS OFF CACHE BOOL "" FORCE)
  set(BUILD_STATIC_LIBS ON CACHE BOOL "" FORCE)
  set(BUILD_OBJECT_LIBS OFF CACHE BOOL "" FORCE)
  set(JSONCPP_WITH_TESTS OFF CACHE BOOL "" FORCE)
  set(JSONCPP_WITH_POST_BUILD_UNITTEST OFF CACHE BOOL "" FORCE)
  set(JSONCPP_WITH_PKGCONFIG_SUPPORT OFF CACHE BOOL "" FORCE)
  set(JSONCPP_WITH_CMAKE_PACKAGE OFF CACHE BOOL "" FORCE)
  set(JSONCPP_WITH_EXAMPLE OFF CACHE BOOL "" FORCE)
  add_subdirectory(${KV_JSONCPP_SOURCE} ${CMAKE_BINARY_DIR}/jsoncpp EXCLUDE_FROM_ALL)
  add_library(kv_jsoncpp INTERFACE)
  target_link_libraries(kv_jsoncpp INTERFACE jsoncpp_static)

  # The Khronos headers of the Debian packages, seen through a directory of their own so that the
  # cross compiler does not see the rest of /usr/include.
  set(KV_KHRONOS_STAGE ${CMAKE_BINARY_DIR}/khronos-include)
  file(MAKE_DIRECTORY ${KV_KHRONOS_STAGE})
  foreach(dir EGL GLES GLES2 GLES3 KHR CL)
    if(NOT EXISTS ${KV_KHRONOS_STAGE}/${dir})
      file(CREATE_LINK /usr/include/${dir} ${KV_KHRONOS_STAGE}/${dir} SYMBOLIC)
    endif()
  endforeach()
  add_library(kv_khronos INTERFACE)
  target_include_directories(kv_khronos SYSTEM INTERFACE ${KV_KHRONOS_STAGE})
  # On Windows khrplatform.h declares every API function dllimport; the front DLLs define and export
  # those names themselves, and nothing here imports them from a driver DLL at link time.
  target_compile_definitions(kv_khronos INTERFACE KHRONOS_STATIC=1)
else()
  find_package(ZLIB REQUIRED)
  find_package(jsoncpp CONFIG REQUIRED)
  add_library(kv_jsoncpp INTERFACE)
  target_link_libraries(kv_jsoncpp INTERFACE jsoncpp_lib)
  add_library(kv_khronos INTERFACE)
endif()

# libpng writes frames as PNG files (kalvoren frames, replay --dump-frames).
if(WIN32)
  # Built from Debian's libpng1.6 source package (scripts/fetch-sources puts it in .deps/), with
  # the configuration the package ships prebuilt.
  set(KV_LIBPNG_SOURCE "${CMAKE_SOURCE_DIR}/.deps/libpng" CACHE PATH "libpng source tree")
  if(NOT EXISTS "${KV_LIBPNG_SOURCE}/png.c")
    message(FATAL_ERROR "No libpng sources in ${KV_LIBPNG_SOURCE}: run scripts/fetch-sources")
  endif()
  configure_file(${KV_LIBPNG_SOURCE}/scripts/pnglibconf.h.prebuilt ${CMAKE_BINARY_DIR}/libpng/pnglibconf.h
    COPYONLY)
  set(_kv_png_sources)
  foreach(f png pngerror pngget pngmem pngpread pngread pngrio pngrtran pngrutil pngset pngtrans pngwio
      pngwrite pngwtran pngwutil)
    list(APPEND _kv_png_sources ${KV_LIBPNG_SOURCE}/${f}.c)
  endforeach()
  add_library(kv_libpng STATIC ${_kv_png_sources})
  target_include_directories(kv_libpng SYSTEM PUBLIC ${KV_LIBPNG_SOURCE} ${CMAKE_BINARY_DIR}/libpng)
  target_compile_definitions(kv_libpng PRIVATE PNG_ARM_NEON_OPT=0 PNG_INTEL_SSE_OPT=0)
  target_link_libraries(kv_libpng PUBLIC ZLIB::ZLIB)
  add_library(kv_png INTERFACE)
  target_link_libraries(kv_png INTERFACE kv_libpng)
else()
  find_package(PNG REQUIRED)
  add_library(kv_png INTERFACE)
  target_link_libraries(kv_png INTERFACE PNG::PNG)
endif()
add_library(KV::png ALIAS kv_png)

add_library(kv_zlib INTERFACE)
target_link_libraries(kv_zlib INTERFACE ZLIB::ZLIB)

# libdeflate compresses the trace's data blocks (the same zlib streams, in one pass and faster).
if(WIN32)
  # Built from Debian's libdeflate source package (scripts/fetch-sources puts it in .deps/).
  set(KV_LIBDEFLATE_SOURCE "${CMAKE_SOURCE_DIR}/.deps/libdeflate" CACHE PATH "libdeflate source tree")
  if(NOT EXISTS "${KV_LIBDEFLATE_SOURCE}/lib/deflate_compress.c")
    message(FATAL_ERROR "No libdeflate sources in ${KV_LIBDEFLATE_SOURCE}: run scripts/fetch-sources")
  endif()
  add_library(kv_libdeflate STATIC ${KV_LIBDEFLATE_SOURCE}/lib/deflate_compress.c
    ${KV_LIBDEFLATE_SOURCE}/lib/zlib_compress.c ${KV_LIBDEFLATE_SOURCE}/lib/adler32.c
    ${KV_LIBDEFLATE_SOURCE}/lib/utils.c ${KV_LIBDEFLATE_SOURCE}/lib/x86/cpu_features.c)
  target_include_directories(kv_libdeflate SYSTEM PUBLIC ${KV_LIBDEFLATE_SOURCE})
  add_library(kv_deflate INTERFACE)
  target_link_libraries(kv_deflate INTERFACE kv_libdeflate)
else()
  find_path(KV_LIBDEFLATE_INCLUDE libdeflate.h REQUIRED)
  find_library(KV_LIBDEFLATE_LIBRARY deflate REQUIRED)
  add_library(kv_deflate INTERFACE)
  target_include_directories(kv_deflate SYSTEM INTERFACE ${KV_LIBDEFLATE_INCLUDE})
  target_link_libraries(kv_deflate INTERFACE ${KV_LIBDEFLATE_LIBRARY})
endif()
add_library(KV::deflate ALIAS kv_deflate)

add_library(KV::jsoncpp ALIAS kv_jsoncpp)
add_library(KV::zlib ALIAS kv_zlib)
add_library(KV::khronos ALIAS kv_khronos)
