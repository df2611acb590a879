# A program of somebody who uses the installed package.
cmake_minimum_required(VERSION 3.25)
project(first LANGUAGES C)
find_package(Pulsekit3 3.3 REQUIRED)
add_executable(first first.c)
target_link_libraries(first PRIVATE Pulsekit3::Pulsekit3 Pulsekit3::Simulator)
