# Doxygen input filter for the public headers. The headers are written in
# plain C comments, as a C programmer reads them; this turns them into
# documentation comments on the way into doxygen, so the header text is the
# reference text and nobody has to keep two spellings of it.
#
# - The first comment of a header describes the file.
# - A comment after code on the same line (struct fields, enum values)
#   describes that code.
# - A comment on lines of its own describes what follows it.
# - A banner on one line of its own ("/* ---- Links ---- */") only
#   separates sections and stays a plain comment.
# - Banner lines ("/* ----" and "/* ====") only name a section: the words
#   stay, the rules of dashes or equals signs go.
0,/\/\*/{
  /^[[:space:]]*\/\*[^*]/ s#/\*#/** @file\n#
}
/^[[:space:]]*\/\* *[-=]\{3,\}.*\*\/[[:space:]]*$/b
/[^[:space:]].*\/\*[^*]/ s#/\*\([^*]\)#/**<\1#
/^[[:space:]]*\/\*[^*]/ s#/\*\([^*]\)#/**\1#
s#^\([[:space:]]*/\*\*\) *[-=]\{3,\} *\(.*[^-= ]\) *[-=]*#\1 \2#
s#^\([[:space:]]*\*\) *[-=]\{4,\} *$#\1#
s#^\([[:space:]]*/\*\*\) *[-=]\{4,\} *$#\1#
# Angle brackets in the prose ("<prefix>/share") are placeholders, not HTML.
/^[[:space:]]*\*\([^/]\|$\)/ { s#<#\\<#g; s#>#\\>#g; }
/^[[:space:]]*\/\*\*[^<]/ { s#<#\\<#g; s#>#\\>#g; }
