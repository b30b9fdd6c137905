# Sets VELMARIN_CRYPTO and VELMARIN_LOG, the crypto and log libraries to link. Without a device's
# libraries VELMARIN_LOG is empty: the platform layer contains the log.
if(VELMARIN_DEVICE_LIBRARIES)
  set(directory /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android)
  find_library(VELMARIN_CRYPTO crypto PATHS ${directory} NO_DEFAULT_PATH REQUIRED)
  find_library(VELMARIN_LOG log PATHS ${directory} NO_DEFAULT_PATH REQUIRED)
  # Before every other directory: the platform layer has its own <android/log.h>.
  include_directories(BEFORE /usr/include/android)
else()
  find_package(OpenSSL 3.0 REQUIRED COMPONENTS Crypto)
  set(VELMARIN_CRYPTO OpenSSL::Crypto)
  set(VELMARIN_LOG)
endif()
