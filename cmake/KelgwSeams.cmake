# The two seams. By default the gateway stands on this repository's own implementations; a site with the
# platform's own SDK names that SDK instead, and Sources/ and PlatformDependant/ compile against its headers.

set(KELGW_PVSS_SDK "" CACHE PATH "Root of a platform SDK to use instead of pvss/ (headers in include/, libraries in lib/)")
set(KELGW_KEL_SDK "" CACHE PATH "Root of a Kel library to use instead of kel/ (headers in include/, libraries in lib/)")

# kelgw_seam(<name> <sdk root>): an interface target kelgw::<name> with nothing but the seam's public headers.
function(kelgw_seam name root)
  add_library(kelgw_seam_${name} INTERFACE)
  add_library(kelgw::${name} ALIAS kelgw_seam_${name})
  if(root)
    file(GLOB libraries "${root}/lib/*.so" "${root}/lib/*.a")
    target_include_directories(kelgw_seam_${name} INTERFACE "${root}/include")
    target_link_libraries(kelgw_seam_${name} INTERFACE ${libraries})
  else()
    target_link_libraries(kelgw_seam_${name} INTERFACE ${name})
  endif()
endfunction()

kelgw_seam(pvss "${KELGW_PVSS_SDK}")
kelgw_seam(kel "${KELGW_KEL_SDK}")
