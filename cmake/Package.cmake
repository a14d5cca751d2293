# What the .debs install of the build; packaging/deb adds the rest, scripts/package builds it.
install(TARGETS kestrel-server kestrel-guard kestrel-arm kestrel-station RUNTIME DESTINATION bin)
install(PROGRAMS packaging/prepare DESTINATION lib/kestrel-server)
install(FILES packaging/completion/kestrel-arm DESTINATION share/bash-completion/completions)
install(DIRECTORY www/ DESTINATION share/kestrel-server/www)
install(FILES packaging/proxy/kestrel-server.conf packaging/proxy/kestrel-server.nft
    DESTINATION share/doc/kestrel-server/examples)
