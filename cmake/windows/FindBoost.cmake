include(HeaderPackage)
header_package(Boost Boost::headers boost)
target_link_libraries(Boost::headers INTERFACE ws2_32 mswsock)
target_compile_definitions(Boost::headers INTERFACE BOOST_SYSTEM_USE_UTF8)
