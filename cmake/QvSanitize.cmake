# One switch for the whole tree so that every library, the plug-in, the simulator
# and the tests are instrumented alike (mixing instrumented and plain code hides races).
if(QV_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(QV_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT QV_SANITIZE STREQUAL "")
  message(FATAL_ERROR "QV_SANITIZE must be empty, 'address' or 'thread'")
endif()
