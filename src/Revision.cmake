# Run at every build: writes OUTPUT with version and revision text, and leaves it alone when nothing changed.
cmake_minimum_required(VERSION 3.25)
if(NOT REVISION)
    execute_process(COMMAND git describe --always --dirty WORKING_DIRECTORY "${SOURCE}"
                    OUTPUT_VARIABLE REVISION OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()
if(NOT REVISION)
    set(REVISION "unknown")
endif()
file(CONFIGURE OUTPUT "${OUTPUT}" @ONLY CONTENT
"#pragma once

/// Version, and revision text of this build.
inline constexpr char kVersion[] = \"@VERSION@\";
inline constexpr char kRevision[] = \"@REVISION@\";
")
