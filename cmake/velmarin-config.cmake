# Targets for a host of the library:
#   velmarin::velmarin  the library
#   velmarin::platform  what the library needs from its platform, for ordinary Linux; a host that has
#                       its own log, bounds-checked functions and control codes omits it.
# An executable that uses both links velmarin::platform itself and names it first: its `ioctl` must
# be found before the C library's.
include(${CMAKE_CURRENT_LIST_DIR}/velmarin-targets.cmake)
