include(HeaderPackage)
header_package(nlohmann_json nlohmann_json::nlohmann_json nlohmann)
