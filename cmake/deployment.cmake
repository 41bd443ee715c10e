# Deployment data: everything that differs between one publisher's build and another's. It is compiled
# in through one generated header (core/deployment.h) and nothing at run time can change it.
set(QORVA_HOST_DISTRIBUTION "dist.qorva.example" CACHE STRING "Distribution host of packages")
set(QORVA_HOST_UPDATE "update.qorva.example" CACHE STRING "Update host of packages")
set(QORVA_HOST_MIRROR_1 "mirror1.qorva.example" CACHE STRING "First mirror host of packages")
set(QORVA_HOST_MIRROR_2 "mirror2.qorva.example" CACHE STRING "Second mirror host of packages")
set(QORVA_REPORT_ORIGIN_PRIMARY "https://reports.qorva.example" CACHE STRING "First origin of report uploads")
set(QORVA_REPORT_ORIGIN_PRIMARY_ROLE "primary" CACHE STRING "Role word of the first report origin")
set(QORVA_REPORT_ORIGIN_MIRROR "https://reports-mirror.qorva.example" CACHE STRING "Second origin of report uploads")
set(QORVA_REPORT_ORIGIN_MIRROR_ROLE "rf_mirror" CACHE STRING "Role word of the second report origin")
set(QORVA_PAGE_URL "https://www.qorva.example/" CACHE STRING "Public web page with the installer; ends in /")
set(QORVA_VERSION "0.1.8" CACHE STRING "Version of this build")
set(QORVA_BUILD_ID "1264" CACHE STRING "Build id of this build")
set(QORVA_CHANNEL "stable" CACHE STRING "Release channel of this build")

if(NOT QORVA_PAGE_URL MATCHES "^https://.+/$")
  message(FATAL_ERROR "QORVA_PAGE_URL must be an https address that ends in '/': '${QORVA_PAGE_URL}'")
endif()
foreach(host DISTRIBUTION UPDATE MIRROR_1 MIRROR_2)
  if(NOT QORVA_HOST_${host} MATCHES "^[A-Za-z0-9.-]+$")
    message(FATAL_ERROR "QORVA_HOST_${host} must be a host name: '${QORVA_HOST_${host}}'")
  endif()
endforeach()

configure_file(${PROJECT_SOURCE_DIR}/src/core/deployment.h.in
               ${PROJECT_BINARY_DIR}/generated/core/deployment.h @ONLY)
