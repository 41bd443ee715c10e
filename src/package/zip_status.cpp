#include "package/zip_status.h"

namespace zul {

std::string_view ZipStatusText(ZipStatus status) {
  switch (status) {
    case kZipOk:
      return "ok";
    case kZipDataError:
      return "compressed data error";
    case kZipMemoryError:
      return "memory error";
    case -5:
      return "buffer error";
    case kZipEndOfList:
      return "end of list";
    case kZipEndOfStream:
      return "end of stream";
    case kZipBadParameter:
      return "invalid parameter";
    case kZipFormatError:
      return "invalid format";
    case -104:
      return "internal error";
    case kZipCrcError:
      return "CRC mismatch";
    case -106:
      return "encryption error";
    case -108:
      return "password required";
    case -109:
      return "unsupported feature";
    case kZipOpenError:
      return "open error";
    case -112:
      return "close error";
    case kZipSeekError:
      return "seek error";
    case -114:
      return "tell error";
    case kZipReadError:
      return "read error";
    case -116:
      return "write error";
    default:
      return "unknown error";
  }
}

}  // namespace zul
