# Warning flags shared by every target of the project.
add_library(orvix_warnings INTERFACE)
target_compile_options(orvix_warnings INTERFACE -Wall -Wextra $<$<BOOL:${ORVIX_WERROR}>:-Werror>)
