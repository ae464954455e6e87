# Plain optimisation: the device's cache is small, and CMake's -O3 makes the library a third larger for nothing felt.
string(REPLACE "-O3" "-O2" CMAKE_C_FLAGS_RELEASE "${CMAKE_C_FLAGS_RELEASE}")
string(REPLACE "-O3" "-O2" CMAKE_CXX_FLAGS_RELEASE "${CMAKE_CXX_FLAGS_RELEASE}")

# Warnings for everything, hardening for what ships, and the rules that keep the shared object free of the C++ runtime.
# Warnings are errors where CMAKE_COMPILE_WARNING_AS_ERROR says so: the presets do, an integrator's build need not.
add_library(vela_warnings INTERFACE)
target_compile_options(vela_warnings INTERFACE
    -Wall -Wextra -Wshadow -Wformat=2 -Wno-format-nonliteral -Wundef -Wvla -Wno-missing-field-initializers)

add_library(vela_sanitizers INTERFACE)
if(VELA_SANITIZE)
    target_compile_options(vela_sanitizers INTERFACE
        -fsanitize=${VELA_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    string(REPLACE "fuzzer-no-link," "" link_sanitizers ${VELA_SANITIZE})
    target_link_options(vela_sanitizers INTERFACE -fsanitize=${link_sanitizers})
endif()

# What ships, the library and velactl: hardened as far as the compiler can, the same bytes wherever it is built, and
# with debug information, which packaging splits off.
add_library(vela_shipped INTERFACE)
target_link_libraries(vela_shipped INTERFACE vela_warnings vela_sanitizers)
target_compile_options(vela_shipped INTERFACE
    -ffunction-sections -fdata-sections -ffile-prefix-map=${PROJECT_SOURCE_DIR}/= -ffile-prefix-map=${PROJECT_BINARY_DIR}=.
    $<$<CONFIG:Release>:-g>)
target_link_options(vela_shipped INTERFACE LINKER:-z,relro LINKER:-z,now LINKER:--gc-sections LINKER:--as-needed)
if(NOT VELA_SANITIZE)
    include(CheckCXXCompilerFlag)
    set(CMAKE_REQUIRED_FLAGS -Werror) # clang only warns of a flag that its target ignores
    foreach(flag -fstack-protector-strong -fstack-clash-protection -fcf-protection -mbranch-protection=standard)
        string(MAKE_C_IDENTIFIER "VELA_HAS${flag}" has)
        check_cxx_compiler_flag(${flag} ${has})
        target_compile_options(vela_shipped INTERFACE $<$<BOOL:${${has}}>:${flag}>)
    endforeach()
    unset(CMAKE_REQUIRED_FLAGS)
    target_compile_options(vela_shipped INTERFACE
        $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>)
endif()

add_library(vela_rules INTERFACE)
target_link_libraries(vela_rules INTERFACE vela_shipped)
target_compile_options(vela_rules INTERFACE
    -ffp-contract=off -fvisibility=hidden -fno-semantic-interposition
    # Nothing is thrown through the library, and debuggers unwind by the debug symbols that a package keeps apart.
    $<$<CONFIG:Release>:-fno-asynchronous-unwind-tables> $<$<CONFIG:Release>:-fno-unwind-tables>
    $<$<COMPILE_LANGUAGE:CXX>:-fvisibility-inlines-hidden -fno-exceptions -fno-rtti -fno-threadsafe-statics>)
# 64-bit times and offsets on 32-bit targets too: vl_now is exported, its size is a contract. The library's users are
# told the same.
set(VELA_WIDE_TYPES "")
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    set(VELA_WIDE_TYPES _FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()
target_compile_definitions(vela_rules INTERFACE _GNU_SOURCE _FILE_OFFSET_BITS=64 ${VELA_WIDE_TYPES})
target_include_directories(vela_rules INTERFACE ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR}/generated)
