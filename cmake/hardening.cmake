# What makes a mistake of ours, or a hostile input, end in a message instead of in somebody else's code.
target_compile_options(project_options INTERFACE -Wformat=2 -Werror=format -fstack-protector-strong)
target_link_options(project_options INTERFACE -Wl,-z,relro,-z,now,-z,text,-z,noexecstack)
if(NOT SCREENRECORD_SANITIZE) # which look closer than this does
  target_compile_options(project_options INTERFACE
    $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE$<SEMICOLON>-D_FORTIFY_SOURCE=3>)
endif()
