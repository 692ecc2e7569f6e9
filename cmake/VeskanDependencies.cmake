# Third-party libraries, all from the platform's packages (scripts/setup.sh installs them).

find_package(ICU 72 REQUIRED COMPONENTS uc i18n)
find_package(Boost 1.74 REQUIRED)
find_package(OpenSSL 3 REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(CryptoPP REQUIRED IMPORTED_TARGET libcrypto++)
pkg_check_modules(XercesC REQUIRED IMPORTED_TARGET xerces-c)
# librdf, and the two libraries under it that the RDF classes call directly (rasqal's messages
# go to the library's log; raptor's terms are librdf's nodes).
pkg_check_modules(Redland REQUIRED IMPORTED_TARGET redland rasqal raptor2)
# The XPath engine's exact xs:decimal and xs:integer arithmetic (C++ bindings and the C library).
pkg_check_modules(GMP REQUIRED IMPORTED_TARGET gmpxx gmp)
find_package(CURL 7.86 REQUIRED)
# The settings store: one database per hive.
find_package(SQLite3 3.31 REQUIRED)
find_package(ZLIB 1.2 REQUIRED)
find_package(Threads REQUIRED)
