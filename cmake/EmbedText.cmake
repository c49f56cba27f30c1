# palaver_embed_text(TARGET VARIABLE FILE) adds a source to the target that defines `const char* const palaver::VARIABLE`
# with the content of the file.
function(palaver_embed_text target variable file)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${file})
  file(READ ${file} content)
  set(source ${CMAKE_CURRENT_BINARY_DIR}/${variable}.cpp)
  file(CONFIGURE OUTPUT ${source} @ONLY CONTENT
    "namespace palaver {\nextern const char* const @variable@;\nconst char* const @variable@ = R\"file(@content@)file\";\n}\n")
  target_sources(${target} PRIVATE ${source})
endfunction()
