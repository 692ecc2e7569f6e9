// Prints the library's version and a fresh identifier: a quick check that the library links,
// loads and works on this machine.
#include <veskan/StringBuffer.h>
#include <veskan/Version.h>

#include <iostream>

int main() {
  std::cout << Veskan::StringBuffer(Veskan::ProductName()) << ' ' << Veskan::LibraryVersion()
            << '\n'
            << "NewId: " << Veskan::NewId(u"id-") << '\n';
  return 0;
}
