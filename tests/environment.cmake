# Read by CTest before it runs anything. Tests have nothing to do with the statistics of the machine's other processes:
# those that are about pages make a directory for them, and all others have none unless whoever runs them names one.
if("$ENV{ZQ_STATISTICS_DIR}" STREQUAL "")
  set(ENV{ZQ_STATISTICS_DIR} off)
endif()
