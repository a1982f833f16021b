# Flags that all our own targets share.

add_library(qel_flags INTERFACE)
target_compile_options(qel_flags INTERFACE
  -Wall -Wextra -Wformat=2 -Wundef -Wvla
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>
  # GCC 12 sees overlaps in "text" + std::string() where there are none.
  $<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CXX_COMPILER_ID:GNU>>:-Wno-restrict>
  $<$<BOOL:${QEL_WERROR}>:-Werror>
  $<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CXX_COMPILER_ID:Clang>>:-Wthread-safety>)
target_compile_definitions(qel_flags INTERFACE _FILE_OFFSET_BITS=64)
target_include_directories(qel_flags INTERFACE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
if(QEL_SANITIZE)
  target_compile_options(qel_flags INTERFACE -fsanitize=${QEL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(qel_flags INTERFACE -fsanitize=${QEL_SANITIZE})
endif()

# What runs on a device: nothing thrown, nothing exported unless marked, unloads for good.
add_library(qel_device_flags INTERFACE)
target_link_libraries(qel_device_flags INTERFACE qel_flags)
target_compile_options(qel_device_flags INTERFACE
  -fvisibility=hidden
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fvisibility-inlines-hidden>
  $<$<AND:$<COMPILE_LANGUAGE:CXX>,$<CXX_COMPILER_ID:GNU>>:-fno-gnu-unique>
  -ffunction-sections -fdata-sections)
target_link_options(qel_device_flags INTERFACE -Wl,--gc-sections -Wl,-z,relro,-z,now)

# Programs and libraries find their neighbours wherever the tree or the package is moved to.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)
file(RELATIVE_PATH qel_lib_from_bin /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
set(CMAKE_INSTALL_RPATH $ORIGIN $ORIGIN/${qel_lib_from_bin})
