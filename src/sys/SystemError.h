// The operating system's error numbers and their texts.
#ifndef VESKAN_SYS_SYSTEMERROR_H
#define VESKAN_SYS_SYSTEMERROR_H

#include <string>

namespace Veskan {
namespace Sys {

// The error number of the calling thread's last failed system call.
int LastError();

// The system's text for `code` as UTF-8, or "An unknown error occured." when it has none.
std::string ErrorText(int code);

// The error numbers for an argument the system would refuse and for an access it would deny.
int InvalidArgumentError();
int AccessDeniedError();

}  // namespace Sys
}  // namespace Veskan

#endif
