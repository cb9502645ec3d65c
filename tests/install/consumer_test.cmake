# Script mode: install, then build and run the consumer two ways.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "failed (${rc}): ${ARGN}\n${out}\n${err}")
  endif()
  set(last_output "${out}" PARENT_SCOPE)
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# find_package(sharedlib CONFIG)
run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/examples/consumer -B ${WORK_DIR}/cmake-build
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-build)
run(${WORK_DIR}/cmake-build/consumer)
if(NOT last_output MATCHES "sharedlib consumer: ok")
  message(FATAL_ERROR "unexpected consumer output: ${last_output}")
endif()

# pkg-config
set(ENV{PKG_CONFIG_PATH} ${prefix}/lib/pkgconfig)
execute_process(COMMAND pkg-config --cflags --libs sharedlib
  RESULT_VARIABLE rc OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config does not know sharedlib")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
run(${CXX} -std=c++20 ${SOURCE_DIR}/examples/consumer/consumer.cpp -o ${WORK_DIR}/consumer-pc ${flags}
    -Wl,-rpath,${prefix}/lib)
run(${WORK_DIR}/consumer-pc)
if(NOT last_output MATCHES "sharedlib consumer: ok")
  message(FATAL_ERROR "unexpected pkg-config consumer output: ${last_output}")
endif()
