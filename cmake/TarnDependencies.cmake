# What is installed and called; docs/dependencies.md says why each. Included by the installed package too.

find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(ZeroMQ REQUIRED IMPORTED_TARGET libzmq>=4.3.4)

# Newer releases bring a package of their own, with the libraries that they need; 3.21 in Debian has none.
find_package(Protobuf CONFIG QUIET)
if(NOT TARGET protobuf::libprotobuf)
  find_package(Protobuf 3.21 REQUIRED)
endif()

if(NOT TARN_PUBLIC_DEPENDENCIES_ONLY)
  find_path(CPPZMQ_INCLUDE_DIR zmq.hpp REQUIRED)
  find_package(spdlog REQUIRED)
  pkg_check_modules(Uuid REQUIRED IMPORTED_TARGET uuid)
  pkg_check_modules(Md REQUIRED IMPORTED_TARGET libmd)
endif()
