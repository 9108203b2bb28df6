# A second build of the whole suite under AddressSanitizer and
# UndefinedBehaviorSanitizer (make test builds it in build-asan/). Leak
# checking stays on; scripts/lsan.supp names the functions whose memory the
# filter keeps on purpose.
option(DNSHOOK_SANITIZE "Build everything with ASan + UBSan (leak checking on)" OFF)
if(DNSHOOK_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined
                      -fno-omit-frame-pointer -g)
  add_link_options(-fsanitize=address,undefined)
endif()
