# ostrel_embed_files(OUTPUT <file.cpp> SYMBOL <name> FILES <f>...)
#
# Generates a C++ source that defines
#     const ostrel::EmbeddedFile <name>[];  and  const std::size_t <name>Count;
# holding each file's base name (without extension) and its bytes. The bytes are written
# as a hex array, so any file content is safe; the source is regenerated when a file
# changes.
set(OSTREL_EMBED_SCRIPT ${CMAKE_CURRENT_LIST_DIR}/EmbedFilesScript.cmake)

function(ostrel_embed_files)
  cmake_parse_arguments(EMB "" "OUTPUT;SYMBOL" "FILES" ${ARGN})
  add_custom_command(
    OUTPUT ${EMB_OUTPUT}
    COMMAND ${CMAKE_COMMAND} -DOUTPUT=${EMB_OUTPUT} -DSYMBOL=${EMB_SYMBOL}
            "-DFILES=${EMB_FILES}" -P ${OSTREL_EMBED_SCRIPT}
    DEPENDS ${EMB_FILES} ${OSTREL_EMBED_SCRIPT}
    COMMENT "Embedding ${EMB_SYMBOL}"
    VERBATIM)
endfunction()
