#!/bin/bash
# To be sourced. Follows the links of Markdown documents.

# The anchors that a document's headings make: small letters, no punctuation, dashes for blanks.
anchors_of() { # DOCUMENT
    sed -n 's/^##* //p' "$1" | tr '[:upper:]' '[:lower:]' | tr -d '`' | sed 's/[^a-z0-9 _-]//g; s/ /-/g'
}

# Prints each link of the documents that leads nowhere; fails when there were no links at all.
dead_links() { # DOCUMENT...
    local document link target links=0
    for document in "$@"; do
        while read -r link; do
            case $link in
            http*:* | '') continue ;;
            esac
            links=$((links + 1))
            target=$document
            [[ $link == '#'* ]] || target=$(dirname -- "$document")/${link%%#*}
            if [[ ! -e $target ]]; then
                echo "$document links to $link, which is not there"
            elif [[ $link == *'#'* ]] && ! anchors_of "$target" | grep -qx -- "${link#*#}"; then
                echo "$document links to $link, but $target has no such heading"
            fi
        done < <(grep -o ']([^)]*)' "$document" | sed 's/^](//; s/)$//')
    done
    [[ $links -ge 20 ]] || echo "only $links links were found, that cannot be all"
}
