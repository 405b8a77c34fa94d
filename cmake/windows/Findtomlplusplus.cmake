include(HeaderPackage)
header_package(tomlplusplus tomlplusplus::tomlplusplus toml++)
