# ostrel_sign_adhoc(TARGET IDENTIFIER): signs the executable of TARGET ad hoc as IDENTIFIER
# after every link, so that a fresh build's programs carry valid signatures
# (docs/code-signing.md). Signing replaces the block a file already carries, so incremental
# builds stay valid; a release signs again with its key.
function(ostrel_sign_adhoc target identifier)
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND ostrel-codesign sign --adhoc --identifier ${identifier} $<TARGET_FILE:${target}>
    VERBATIM)
  add_dependencies(${target} ostrel-codesign)
endfunction()
