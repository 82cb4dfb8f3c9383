#!/bin/bash
# docs/operating.md explains every line that the code may log, and none that it may not.
# usage: log_lines_test.sh SOURCE_DIR
set -euo pipefail
cd -- "$1"
mapfile -t files < <(find src described -name '*.cpp' -o -name '*.h' | sort)
tests/tools/log_lines "${files[@]}" | perl -e '
    open my $document, "<", "docs/operating.md" or die;
    my (@explained, $failed);
    while (<$document>) { push @explained, $1 if /^\| `([^`]+)` \|/ }
    chomp(my @logged = <STDIN>);
    die "only " . @logged . " lines of the log were found, that cannot be all\n" if @logged < 40;
    # Variable parts aside; what is shorter than a word says nothing.
    sub parts { grep { /[A-Za-z]{3}/ } split /\.\.\./, shift }
    for my $line (@logged) {
        for my $part (parts($line)) {
            next if grep { index($_, $part) >= 0 } @explained;
            print "docs/operating.md does not explain \"$part\" of: $line\n";
            $failed = 1;
        }
    }
    for my $line (@explained) {
        for my $part (parts($line)) {
            next if grep { index($_, $part) >= 0 } @logged;
            print "docs/operating.md explains what nobody logs: \"$part\" of: $line\n";
            $failed = 1;
        }
    }
    print scalar(@logged) . " lines of the log, " . @explained . " explained\n";
    exit($failed // 0);'
