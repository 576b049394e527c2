# Documents to PDF, with and without OCR, against scanimage --format=pdf:
# `cmake --build build-release --target bench_documents` prints pages per minute.
if(TARGET sane-zentary AND TARGET zentary-scan)
  add_custom_target(bench_documents
    COMMAND ${CMAKE_CURRENT_LIST_DIR}/documents.sh ${CMAKE_BINARY_DIR}
    DEPENDS sane-zentary zentary-scan
    USES_TERMINAL)
endif()
