# Code generated from descriptions/, always into the build tree.
find_package(Python3 3.11 REQUIRED COMPONENTS Interpreter)

set(PULSEKIT_GENERATED ${PROJECT_BINARY_DIR}/generated)
set(PULSEKIT_DESCRIPTIONS ${PROJECT_SOURCE_DIR}/descriptions)
set(describe ${PROJECT_SOURCE_DIR}/generator/describe.py)
file(GLOB generator_sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/generator/*.py)
file(GLOB description_files CONFIGURE_DEPENDS ${PULSEKIT_DESCRIPTIONS}/*.toml)

# pulsekit_describe(<variable> <model> <description>)
# Puts the sources that are generated for the model into the variable. A relative description is one of descriptions/.
function(pulsekit_describe variable model description)
  set(directory ${PULSEKIT_GENERATED}/${model})
  set(sources
      ${directory}/${model}-autogen.h
      ${directory}/${model}-symbols-autogen.cpp
      ${directory}/${model}-vars-autogen.cpp
      ${directory}/${model}-registers-autogen.cpp)
  cmake_path(ABSOLUTE_PATH description BASE_DIRECTORY ${PULSEKIT_DESCRIPTIONS} OUTPUT_VARIABLE toml)
  add_custom_command(
    OUTPUT ${sources}
    COMMAND Python3::Interpreter -B ${describe} sources ${toml} --model ${model} --out ${directory}
    DEPENDS ${toml} ${generator_sources}
    COMMENT "Generating the variables of ${model}"
    VERBATIM)
  set(${variable} ${sources} PARENT_SCOPE)
endfunction()

# pulsekit_driver(<model> DESCRIPTION <file> [DEFINITION <definition>] [SOURCES <source>...])
# Compiles the driver's sources together with the code generated for this model and adds them to the library. A driver
# of several models calls it once for each.
function(pulsekit_driver model)
  cmake_parse_arguments(PARSE_ARGV 1 driver "" "DESCRIPTION;DEFINITION" "SOURCES")
  pulsekit_describe(generated ${model} ${driver_DESCRIPTION})
  add_library(${model}_objects OBJECT ${driver_SOURCES} ${generated})
  target_include_directories(
    ${model}_objects PRIVATE ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/src ${PULSEKIT_GENERATED}/${model})
  target_compile_definitions(${model}_objects PRIVATE PULSEKIT3_BUILD ${driver_DEFINITION})
  set(PULSEKIT_DRIVER_OBJECTS ${PULSEKIT_DRIVER_OBJECTS} $<TARGET_OBJECTS:${model}_objects>
      CACHE INTERNAL "Object files of drivers")
endfunction()

# pulsekit_meaning(<target>)
# Compiles the meaning of all variables and actions into a program, which includes "meaning-autogen.h".
function(pulsekit_meaning target)
  set(directory ${PULSEKIT_GENERATED}/${target})
  add_custom_command(
    OUTPUT ${directory}/meaning-autogen.h ${directory}/meaning-autogen.cpp
    COMMAND Python3::Interpreter -B ${describe} meaning ${description_files} --out ${directory}
    DEPENDS ${description_files} ${generator_sources}
    COMMENT "Generating the meaning of all variables"
    VERBATIM)
  target_sources(${target} PRIVATE ${directory}/meaning-autogen.h ${directory}/meaning-autogen.cpp)
  target_include_directories(${target} PRIVATE ${directory})
endfunction()

set(variable_reference ${PROJECT_BINARY_DIR}/docs/variables.md)
add_custom_command(
  OUTPUT ${variable_reference}
  COMMAND Python3::Interpreter -B ${describe} reference ${description_files} --out ${variable_reference}
  DEPENDS ${description_files} ${generator_sources}
  COMMENT "Generating the variable reference"
  VERBATIM)
add_custom_target(variable_reference ALL DEPENDS ${variable_reference})
