# The software bill of materials, SPDX 2.3: the library, and what this build of it is linked with.
set(materials jansson/${jansson_VERSION} libevent/${libevent_core_VERSION} curl/${libcurl_VERSION}
    zlib/${zlib_VERSION} openssl/${libssl_VERSION} libpcap/${libpcap_VERSION})
if(VELA_LIBNL_TINY)
    list(APPEND materials libnl-tiny/${libnl_tiny_VERSION})
else()
    list(APPEND materials libnl/${libnl_libnl-3.0_VERSION})
endif()
if(NOT VELA_UBUS_STANDIN)
    list(APPEND materials libubus/NOASSERTION libubox/NOASSERTION) # they tell no version
endif()
if(VELA_WIFI_WRAPPER)
    list(APPEND materials wifi-wrapper/NOASSERTION)
endif()

# A release's date, not a build's: a build says when it ran only if it is told to.
set(created 2025-01-01T00:00:00Z)
if(DEFINED ENV{SOURCE_DATE_EPOCH})
    string(TIMESTAMP created UTC)
endif()
set(unknown [[
      "downloadLocation": "NOASSERTION", "filesAnalyzed": false, "licenseConcluded": "NOASSERTION",
      "licenseDeclared": "NOASSERTION", "copyrightText": "NOASSERTION"
    }]])
set(packages "
    { \"name\": \"libvela\", \"SPDXID\": \"SPDXRef-libvela\", \"versionInfo\": \"${PROJECT_VERSION}\",${unknown}")
set(relations "
    { \"spdxElementId\": \"SPDXRef-DOCUMENT\", \"relationshipType\": \"DESCRIBES\",
      \"relatedSpdxElement\": \"SPDXRef-libvela\" }")
foreach(material ${materials})
    string(REGEX MATCH "(.*)/(.*)" material ${material})
    set(name ${CMAKE_MATCH_1})
    string(APPEND packages ",
    { \"name\": \"${name}\", \"SPDXID\": \"SPDXRef-${name}\", \"versionInfo\": \"${CMAKE_MATCH_2}\",${unknown}")
    string(APPEND relations ",
    { \"spdxElementId\": \"SPDXRef-libvela\", \"relationshipType\": \"DYNAMIC_LINK\",
      \"relatedSpdxElement\": \"SPDXRef-${name}\" }")
endforeach()
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/vela.spdx.json @ONLY CONTENT [[
{
  "spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT",
  "name": "libvela-@PROJECT_VERSION@",
  "documentNamespace": "https://vela.example/spdx/libvela-@PROJECT_VERSION@",
  "creationInfo": { "created": "@created@", "creators": [ "Tool: libvela-build" ] },
  "packages": [@packages@
  ],
  "relationships": [@relations@
  ]
}
]])
install(FILES ${PROJECT_BINARY_DIR}/vela.spdx.json DESTINATION ${CMAKE_INSTALL_DATADIR}/sbom)
