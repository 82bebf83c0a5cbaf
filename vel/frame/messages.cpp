// The message texts of the error codes: one table for the library's own codes, one for the system's.
#include <algorithm>
#include <array>
#include <vel/frame/messages.h>

namespace vel {
namespace {

// By index; the wording, the double blanks and the missing full stop of number 6 are the library's own and stay.
constexpr std::array<std::string_view, 39> library_messages = {{
    "알 수 없는 오류가 발생하였습니다.",
    "라이브러리가 사용 가능 하도록 초기화 되지 않았습니다.",
    "해당 함수 또는 객체의 구현내용이 코드상에 존재하지 않습니다.",
    "해당 함수에 전달 된 매개변수 또는 객체의 포인터가 NULL이거나 중요멤버가 NULL입니다.",
    "사용자 해쉬 함수의 계산 결과가 올바르지 않습니다.",
    "MD5 데이터의 크기가 올바르지 않습니다",
    "해당 객체 또는 모듈의 사용이 종료되었거나 초기화 되지 않아 더이상 해당 작업을 수행 할 수 없습니다.",
    "이벤트를 폴링 할 수 있는 최대 크기(63)를 초과하였습니다.",
    "해당 요청을 원격 또는 로컬 서버가 처리하지 못하고 실패응답을 리턴 하였습니다.",
    "해당 객체 또는 값을 지정 된 자료구조에서 찾을 수 없습니다.",
    "할당하려는 메모리의 크기가 0 입니다.",
    "로컬 데이터 타입을 I/O 스트림으로 인코딩 하기 위한 출력 버퍼의 크기가 부족하거나 올바르지 않습니다.",
    "I/O 스트림의 해당 element type 이 올바르지 않습니다.",
    "I/O 스트림의 해당 element의 길이가 올바르지 않습니다.",
    "로컬 데이터 타입으로 디코딩 하기 위한 I/O 스트림 바이트열의 길이가 작거나 올바르지 않습니다.",
    "I/O 스트림에서 해당 element 를 찾을 수 없습니다.",
    "I/O 스트림의 프로토콜 형식이 올바르지 않습니다.",
    "상대방으로부터 현재 연결이 종료 되었습니다.",
    "스레드 Task 를 초기화 하는 중 오류가 발생하였습니다.",
    "비동기 I/O 작업을 위한 Completion Key 가 존재하지 않습니다.",
    "비동기 I/O 작업 완료대기를 위한 작업스레드 수가 최대 값(64)를 초과하였습니다.",
    "캐시 파일의 메타정보가 올바르지 않습니다.",
    "캐시파일을 생성하는 중 사용자에 의해 작업이 취소되었습니다.",
    "해당 캐시파일은 아직 열리지 않았으므로 사용이 불가능 합니다.  먼저 해당 파일을 열어주십시오.",
    "읽으려는 해당 캐시파일의 Piece 옵셋은 아직 다운로드가 완료되지 않았습니다.",
    "지정 된 캐시파일의 Read/Write 옵셋이 지정 된 Piece 의 크기를 초과하였습니다.",
    "지정 된 캐시파일의 해당 조각의 체크섬 값이 올바르지 않습니다.",
    "캐시 하려는 파일의 내용이 비어있습니다.  파일의 크기가 1이상인 파일을 지정 해 주십시오.",
    "캐시하려는 파일의 메타정보가 올바르지 않습니다.",
    "생성하려는 캐시파일이 이미 다른 스레드 또는 프로세스에 의해 이용 중 입니다.",
    "더이상 UDP ENET의 연결을 생성 할 수 없습니다.  사용가능 한 피어의 세션 값이 최대 수를 초과하였습니다.",
    "UDP ENET 피어의 연결이 완료되지 않았거나 연결이 종료되었으므로 더 이상 메시지를 송/수신 할 수 있는 상태가 "
    "아닙니다.",
    "지정 된 캐시파일에서 엑세스 하려는 해당 Piece 번호가 존재하지 않거나 올바르지 않습니다.",
    "캐시파일에 대한 원본파일이 이미 다른 경로에 존재 합니다.",
    "데이터베이스 오류가 발생하였습니다.",
    "해당 작업을 수행하기 위한 인증이 필요합니다.",
    "작업이 취소 되었습니다.",
    "중복 되는 작업이 이미 실행 중 입니다.",
    "작업이 너무 많아 해당 요청을 수용 할 수 없습니다.",
}};

struct SystemMessage {
    uint32_t code;
    std::string_view text;
};

// Ascending by code.
constexpr SystemMessage system_messages[] = {
    {0, "The operation succeeded."},
    {2, "The file was not found."},
    {3, "The path was not found."},
    {4, "Too many files are open."},
    {5, "Access is denied."},
    {6, "The handle is not valid."},
    {8, "Not enough memory is available."},
    {17, "The file cannot be moved to another device."},
    {19, "The medium is write-protected."},
    {20, "The device was not found."},
    {32, "The file is in use by another process."},
    {33, "Another process has locked a part of the file."},
    {38, "The end of the file was reached."},
    {50, "The request is not supported."},
    {80, "The file exists."},
    {87, "A parameter is not valid."},
    {109, "The pipe has ended."},
    {112, "There is not enough space on the disk."},
    {122, "The buffer is too small."},
    {145, "The directory is not empty."},
    {158, "The range is not locked."},
    {161, "The path is not valid."},
    {170, "The resource is in use."},
    {183, "The file or directory exists already."},
    {206, "The file name is too long."},
    {223, "The file is larger than the file system allows."},
    {258, "The wait timed out."},
    {288, "The mutex is not owned by the caller."},
    {534, "A number is too large for the result."},
    {735, "The completion port was closed during the wait."},
    {995, "The operation was cancelled."},
    {997, "The operation is under way."},
    {998, "The memory address is not valid."},
    {1117, "The device failed."},
    {1131, "The wait would never end."},
    {1150, "The system version is too old."},
    {1400, "The window is not valid."},
    {1450, "Not enough system resources are available."},
    {1812, "The file holds no resources."},
    {1813, "The resources of the file are malformed."},
    {1816, "A quota was exceeded."},
    {1921, "The name cannot be resolved by the system."},
    {10013, "Access to the socket is denied."},
    {10014, "The memory address given to the socket is not valid."},
    {10022, "A parameter of the socket operation is not valid."},
    {10024, "Too many sockets are open."},
    {10035, "The socket operation would block."},
    {10036, "A blocking socket operation is under way."},
    {10037, "The socket operation is under way already."},
    {10038, "The handle is not a socket."},
    {10039, "A destination address is needed."},
    {10040, "The message is longer than the buffer or the network allows."},
    {10041, "The protocol does not fit the socket type."},
    {10042, "The socket option is unknown."},
    {10043, "The protocol is not supported."},
    {10044, "The socket type is not supported."},
    {10045, "The socket operation is not supported."},
    {10046, "The protocol family is not supported."},
    {10047, "The address family is not supported."},
    {10048, "The address is in use."},
    {10049, "The address is not available."},
    {10050, "The network is down."},
    {10051, "The network cannot be reached."},
    {10052, "The network dropped the connection."},
    {10053, "The connection was aborted."},
    {10054, "The peer reset the connection."},
    {10055, "Not enough buffer space is available."},
    {10056, "The socket is connected already."},
    {10057, "The socket is not connected."},
    {10058, "The socket has been shut down."},
    {10060, "The connection timed out."},
    {10061, "The peer refused the connection."},
    {10062, "The name contains a loop."},
    {10063, "The name is too long."},
    {10064, "The host is down."},
    {10065, "The host cannot be reached."},
    {10092, "The socket layer version is not supported."},
    {11001, "The host was not found."},
    {11002, "The host was not found for now; try again."},
    {11003, "The name server failed."},
    {11004, "The host has no address."},
    {12002, "The HTTP request timed out."},
    {12005, "The URL is not valid."},
    {12007, "The server name cannot be resolved."},
    {12017, "The HTTP operation was cancelled."},
    {12019, "The HTTP handle is in the wrong state."},
    {12029, "The server cannot be connected."},
    {12030, "The HTTP connection was aborted."},
    {12031, "The HTTP connection was reset."},
    {12045, "The certificate of the server is not trusted."},
    {12150, "The HTTP header was not found."},
    {12152, "The answer of the server is not valid."},
    {12156, "The redirection failed."},
    {12157, "A secure channel cannot be set up."},
};

constexpr bool below(const SystemMessage& message, uint32_t code) { return message.code < code; }

constexpr bool ascending(const SystemMessage& left, const SystemMessage& right) { return left.code < right.code; }
static_assert(std::is_sorted(std::begin(system_messages), std::end(system_messages), ascending));

} // namespace

std::string_view library_text(uint32_t index) {
    if (index < 1 || index > library_messages.size()) return {};
    return library_messages[index - 1];
}

std::string_view system_text(uint32_t code) {
    const auto* found = std::lower_bound(std::begin(system_messages), std::end(system_messages), code, below);
    if (found == std::end(system_messages) || found->code != code) return {};
    return found->text;
}

std::string_view fallback_text() { return library_messages[0]; }

} // namespace vel
