# Where a board has what the daemon uses. The program, the unit, the manual page, the scripts and
# the other files that need to know are made from these.

set(QUILLWICK_I2C_DEVICE /dev/i2c-2 CACHE STRING "Device file of the bus with the FRAM chip")
set(QUILLWICK_SLAVE_ADDRESS 0x50 CACHE STRING "7-bit address of the chip on that bus")
set(QUILLWICK_LOG_FOLDER /var/logperm CACHE STRING "Folder of the log files, and of nothing else")
set(QUILLWICK_CONTROL_SOCKET /tmp/quillwick CACHE STRING "Socket between daemon and clients")
set(QUILLWICK_CONFIGURATION /etc/quillwick.conf CACHE STRING "Configuration file")

# Names that need no quoting in C++, shell, troff, and systemd's files.
set(plainPath "^(/[A-Za-z0-9_][A-Za-z0-9._+-]*)+$")
foreach(name I2C_DEVICE LOG_FOLDER CONTROL_SOCKET CONFIGURATION)
  if(NOT QUILLWICK_${name} MATCHES "${plainPath}")
    message(FATAL_ERROR "QUILLWICK_${name} has to be an absolute path of letters, digits and the "
      "characters . _ + -, not \"${QUILLWICK_${name}}\".")
  endif()
endforeach()

# A bus is named by its number, so that permissions can be given before it appears.
if(NOT QUILLWICK_I2C_DEVICE MATCHES "^/dev/i2c-(0|[1-9][0-9]*)$")
  message(FATAL_ERROR "QUILLWICK_I2C_DEVICE has to be a bus /dev/i2c-N, "
    "not \"${QUILLWICK_I2C_DEVICE}\".")
endif()
set(i2cBusNumber ${CMAKE_MATCH_1})

# The others are reserved on every bus.
set(address 0)
if(QUILLWICK_SLAVE_ADDRESS MATCHES "^(0x[0-9A-Fa-f][0-9A-Fa-f]?|[1-9][0-9]?[0-9]?)$")
  math(EXPR address ${QUILLWICK_SLAVE_ADDRESS})
endif()
if(address LESS 0x03 OR address GREATER 0x77)
  message(FATAL_ERROR "QUILLWICK_SLAVE_ADDRESS has to be a number from 0x03 to 0x77, "
    "not \"${QUILLWICK_SLAVE_ADDRESS}\".")
endif()

# The folder's owner and mode are set at every boot, and purging the package may remove it.
set(topFolders bin boot dev etc home lib media mnt opt proc root run sbin srv sys tmp usr var)
set(varFolders backups cache lib local lock log mail opt run spool tmp)
list(JOIN topFolders "|" topFolders)
list(JOIN varFolders "|" varFolders)
if(QUILLWICK_LOG_FOLDER MATCHES "^/((${topFolders})|var/(${varFolders})|(dev|home|proc|root|sys)/.*)$")
  message(FATAL_ERROR "QUILLWICK_LOG_FOLDER has to be a folder for the log files alone, "
    "not \"${QUILLWICK_LOG_FOLDER}\".")
endif()

# In the /tmp of all, or in a folder that the daemon's user gets for it.
if(NOT QUILLWICK_CONTROL_SOCKET MATCHES "^(/tmp|/run/quillwick)/[^/]+$")
  message(FATAL_ERROR "QUILLWICK_CONTROL_SOCKET has to be /tmp/NAME or /run/quillwick/NAME, "
    "not \"${QUILLWICK_CONTROL_SOCKET}\".")
endif()
set(socketFolder ${CMAKE_MATCH_1})
string(LENGTH "${QUILLWICK_CONTROL_SOCKET}" length)
if(length GREATER 107)
  message(FATAL_ERROR "QUILLWICK_CONTROL_SOCKET may have 107 bytes, not ${length}: "
    "a socket's address has no room for more.")
endif()

configure_file(src/support/paths.h.in generated/support/paths.h @ONLY)
configure_file(scripts/boardPaths.sh.in boardPaths.sh @ONLY)
