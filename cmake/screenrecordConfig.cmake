# find_package(screenrecord) gives the target screenrecord::screenrecord; with COMPONENTS contract also
# screenrecord::contract, the headers that another platform implements.
include(${CMAKE_CURRENT_LIST_DIR}/screenrecordTargets.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/screenrecordContractTargets.cmake OPTIONAL RESULT_VARIABLE screenrecord_contract_FOUND)
foreach(component IN LISTS screenrecord_FIND_COMPONENTS)
  if(screenrecord_FIND_REQUIRED_${component} AND NOT screenrecord_${component}_FOUND)
    set(screenrecord_FOUND FALSE)
    set(screenrecord_NOT_FOUND_MESSAGE "component '${component}' is not installed; there is 'contract'")
  endif()
endforeach()
