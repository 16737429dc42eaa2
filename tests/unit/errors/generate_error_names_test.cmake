# The generator on a small header in both toolchains' manner; run with -D GENERATOR= -D WORK_DIR=.
cmake_minimum_required(VERSION 3.25)

# expect(HEADER_TEXT EXPECTED_TABLE)
function(expect header expected)
  file(WRITE "${WORK_DIR}/winerror.h" "${header}")
  execute_process(
    COMMAND ${CMAKE_COMMAND} -D HEADER=${WORK_DIR}/winerror.h -D OUTPUT=${WORK_DIR}/names.inc
            -P ${GENERATOR}
    COMMAND_ERROR_IS_FATAL ANY)
  file(READ "${WORK_DIR}/names.inc" table)
  if(NOT table STREQUAL expected)
    message(FATAL_ERROR "expected:\n${expected}found:\n${table}")
  endif()
endfunction()

set(expected [[
{0, "ERROR_SUCCESS"},
{5, "ERROR_ACCESS_DENIED"},
{1300, "ERROR_NOT_ALL_ASSIGNED"},
{10009, "WSAEBADF"},
{10112, "WSAEREFUSED"},
{15841, "ERROR_API_UNAVAILABLE"},
]])

expect([[
#define NO_ERROR __MSABI_LONG(0)
#define ERROR_SUCCESS __MSABI_LONG(0)
#define ERROR_API_UNAVAILABLE __MSABI_LONG(15841)
#define ERROR_ACCESS_DENIED __MSABI_LONG(5)
#define ERROR_SECOND_NAME __MSABI_LONG(5)
#define ERROR_NOT_ALL_ASSIGNED __MSABI_LONG(1300)
/*#define ERROR_COMMENTED_OUT __MSABI_LONG(13884)*/
#define ERROR_AUDITING_DISABLED _HRESULT_TYPEDEF_(0xC0090001)
#define WSABASEERR 10000
#define WSA_BELOW_THE_RANGE (WSABASEERR + 3)
#define WSAEBADF (WSABASEERR + 9)
#define WSAEREFUSED		(WSABASEERR + 112 )
#define WSAHOST_NOT_FOUND (WSABASEERR + 1001)
]] "${expected}")

expect([[
#define ERROR_HEXADECIMAL                0x10L
#define NO_ERROR 0L                                                 // dderror
#define ERROR_SUCCESS                    0L
//
// MessageId: ERROR_ACCESS_DENIED [with; odd text
//
#define ERROR_ACCESS_DENIED              5L
#define ERROR_SECOND_NAME                5L    // dderror
#define ERROR_NOT_ALL_ASSIGNED           1300L
#define ERROR_API_UNAVAILABLE            15841L
#define ERROR_FLT_IO_COMPLETE            _HRESULT_TYPEDEF_(0x001F0001L)
#define WSABASEERR 10000
#define WSA_IO_PENDING                   997L
#define WSAEBADF                         10009L
#define WSAEREFUSED                      10112L
#define WSAHOST_NOT_FOUND                11001L
]] "${expected}")
