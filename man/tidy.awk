# Drops the empty paragraph macros scdoc writes around section headings and
# moves the ones it writes before the end of an indented block after it, which
# mandoc -T lint otherwise reports as warnings; the page renders the same.
function flush_p(next_line) {
    if (!pending) return
    pending = 0
    if (prev ~ /^\.(TH|SH|SS|P|PP|RS)( |$)/) return
    if (next_line ~ /^\.(SH|SS|P|PP)( |$)/ || next_line == "") return
    print ".P"; prev = ".P"
}
/^\.P$/ { pending = 1; next }
/^\.RE$/ && pending { print; prev = $0; next }
{ flush_p($0); print; prev = $0 }
END { flush_p("") }
