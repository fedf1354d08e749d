# README's code blocks as one program, built against the installed package the way a
# client builds: find_package and the one target, nothing else.
cmake_minimum_required(VERSION 3.16)
project(orvosdk-readme LANGUAGES CXX)
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_AUTOMOC ON)
find_package(orvosdk-codecs REQUIRED)
add_executable(readme_snippets readme_snippets.cpp)
target_link_libraries(readme_snippets PRIVATE orvosdk::orvosdk-codecs)
