# Language, warnings and places of the products, the same for every target.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)
# Relative, so that a build tree can be moved and an installed tree needs no
# environment variable; and the same in both: CMake would otherwise end the build
# tree's with an empty entry, to be cut off at installation, which means the current
# directory.
set(CMAKE_BUILD_WITH_INSTALL_RPATH ON)
set(CMAKE_INSTALL_RPATH "$ORIGIN" "$ORIGIN/../lib")

add_compile_definitions(_GNU_SOURCE)
# Errors are return values here: no exceptions, no run-time type information.
add_compile_options(-fno-exceptions -fno-rtti -fvisibility-inlines-hidden)
add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wsign-conversion -Wshadow
                    -Wold-style-cast -Wcast-align -Wformat=2 -Wnull-dereference
                    -Wnon-virtual-dtor -Woverloaded-virtual -Wimplicit-fallthrough -Wundef)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    add_compile_options(-Wthread-safety)
endif()
if(HTTP_CLIENT_WERROR)
    add_compile_options(-Werror)
endif()

# HTTP_CLIENT_SANITIZE: a -fsanitize= list, set by the asan and tsan presets.
if(HTTP_CLIENT_SANITIZE)
    add_compile_options(-fsanitize=${HTTP_CLIENT_SANITIZE} -fno-sanitize-recover=all
                        -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${HTTP_CLIENT_SANITIZE})
endif()
