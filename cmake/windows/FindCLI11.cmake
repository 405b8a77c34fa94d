include(HeaderPackage)
header_package(CLI11 CLI11::CLI11 CLI)
