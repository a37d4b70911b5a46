# A cross build's programs, as this machine can start them: a script of the same name for each, which runs it under
# CMAKE_CROSSCOMPILING_EMULATOR. Homes and tests take them from there.
set(ARVOK_PROGRAMS ${CMAKE_BINARY_DIR}/emulated/bin)
list(JOIN CMAKE_CROSSCOMPILING_EMULATOR " " emulator)
foreach(program arvokclt qzcap-probe ubusd ubus qzcapd lab-gateway lab-cloud bus_object)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/emulated.in ${ARVOK_PROGRAMS}/${program} @ONLY
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
endforeach()
