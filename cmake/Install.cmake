# The installed package: the public headers, the kit as static libraries and
# as one shared library (libtarnwell.so, versioned), a CMake package and a
# pkg-config file.
#   cmake --install build/release --prefix DIR
# then find_package(TarnwellKit CONFIG REQUIRED) and link Tarnwell::Kit (the
# shared library) or Tarnwell::KitStatic; or pkg-config --cflags --libs tarnwell.

include(CMakePackageConfigHelpers)

set(kit_libraries TarnwellKit TarnwellCloudKit TarnwellHealthKit WidgetShared TarnwellPlatform)
set_target_properties(TarnwellKit PROPERTIES EXPORT_NAME KitStatic)
set_target_properties(TarnwellPlatform PROPERTIES EXPORT_NAME Platform)
set_target_properties(TarnwellHealthKit PROPERTIES EXPORT_NAME HealthKit)
set_target_properties(TarnwellCloudKit PROPERTIES EXPORT_NAME CloudKit)

set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/TarnwellKit")

if(TARNWELL_SHARED)
  # The shared library is made of the static libraries' own objects (built
  # position-independent for it), linked against the libraries they use.
  add_library(TarnwellShared SHARED)
  # With the C interface and the commands it runs.
  foreach(library IN LISTS kit_libraries ITEMS TarnwellC tarnwell_host tarnwell_import)
    target_sources(TarnwellShared PRIVATE "$<TARGET_OBJECTS:${library}>")
  endforeach()
  target_link_libraries(TarnwellShared
    PUBLIC nlohmann_json::nlohmann_json Threads::Threads
    PRIVATE SQLite::SQLite3 ICU::uc ICU::i18n PkgConfig::UUID PkgConfig::PQXX spdlog::spdlog
            PkgConfig::CHART_DRAWING CLI11::CLI11)
  target_include_directories(TarnwellShared PUBLIC
    "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>"
    "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/widget_shared/include>"
    "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>")
  target_compile_features(TarnwellShared PUBLIC cxx_std_20)
  # A sanitized library works only in a program linked with its runtime.
  target_link_options(TarnwellShared INTERFACE "$<INSTALL_INTERFACE:${TARNWELL_SANITIZER_LINK}>")
  # A symbol left undefined fails the link here, not in a program that loads it.
  target_link_options(TarnwellShared PRIVATE -Wl,--no-undefined)
  # 0.x: every minor version may change the interface, so it is in the SONAME.
  set_target_properties(TarnwellShared PROPERTIES
    OUTPUT_NAME tarnwell
    EXPORT_NAME Kit
    VERSION "${PROJECT_VERSION}"
    SOVERSION "${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}")
  install(TARGETS TarnwellShared EXPORT TarnwellKitShared
    LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}")
  install(EXPORT TarnwellKitShared NAMESPACE Tarnwell:: DESTINATION "${package_dir}")

  # pkg-config's tarnwell is the shared library. The file finds the prefix
  # from its own place, so the installed tree can move.
  string(JOIN " " pc_sanitizer ${TARNWELL_SANITIZER_LINK})
  file(RELATIVE_PATH pc_to_prefix "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
  string(REGEX REPLACE "/$" "" pc_to_prefix "${pc_to_prefix}")
  configure_file(cmake/tarnwell.pc.in "${CMAKE_CURRENT_BINARY_DIR}/tarnwell.pc" @ONLY)
  install(FILES "${CMAKE_CURRENT_BINARY_DIR}/tarnwell.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

  # The Python package, over the shared library beside it.
  install(DIRECTORY python/tarnwell DESTINATION "${CMAKE_INSTALL_LIBDIR}/python"
    PATTERN __pycache__ EXCLUDE)
endif()

target_link_options(TarnwellPlatform INTERFACE "$<INSTALL_INTERFACE:${TARNWELL_SANITIZER_LINK}>")
install(DIRECTORY include/ widget_shared/include/ DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(TARGETS ${kit_libraries}
  EXPORT TarnwellKitStatic
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}")
install(EXPORT TarnwellKitStatic NAMESPACE Tarnwell:: DESTINATION "${package_dir}")

configure_package_config_file(cmake/TarnwellKitConfig.cmake.in
  "${CMAKE_CURRENT_BINARY_DIR}/TarnwellKitConfig.cmake"
  INSTALL_DESTINATION "${package_dir}")
write_basic_package_version_file("${CMAKE_CURRENT_BINARY_DIR}/TarnwellKitConfigVersion.cmake"
  COMPATIBILITY SameMinorVersion)
install(FILES
  "${CMAKE_CURRENT_BINARY_DIR}/TarnwellKitConfig.cmake"
  "${CMAKE_CURRENT_BINARY_DIR}/TarnwellKitConfigVersion.cmake"
  DESTINATION "${package_dir}")
