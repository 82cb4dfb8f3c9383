#!/usr/bin/perl
# Serves rows to the agent's pass_persist, as quickly as such a script can: all
# answers are made before the first question, and one is found by one look-up.
# usage: rows.pl FILE    a line for each varbind, in order: OID, type and value,
#                        with tabs between them
use strict;
use warnings;

my (@names, @keys, %answer, %next);

sub key { # orders as object identifiers do
    return pack 'N*', split /\./, substr $_[0], 1;
}

open my $rows, '<', $ARGV[0] or die "$ARGV[0]: $!\n";
while (<$rows>) {
    chomp;
    my ($name, $type, $value) = split /\t/, $_, 3;
    $answer{$name} = "$name\n$type\n$value\n";
    $next{ $names[-1] } = $answer{$name} if @names;
    push @names, $name;
    push @keys,  key($name);
}
$next{ $names[-1] } = "NONE\n" if @names;

sub find_next { # of a name that is no row's
    my $wanted = key($_[0]);
    my ($low, $high) = (0, scalar @keys);
    while ($low < $high) {
        my $middle = int(($low + $high) / 2);
        if ($keys[$middle] le $wanted) { $low = $middle + 1 }
        else                           { $high = $middle }
    }
    return $low < @names ? $answer{ $names[$low] } : "NONE\n";
}

$| = 1;
while (my $command = <STDIN>) {
    if ($command eq "PING\n") {
        print "PONG\n";
        next;
    }
    my $name = <STDIN>;
    last if !defined $name;
    chomp $name;
    if ($command eq "getnext\n") {
        print $next{$name} // find_next($name);
    } elsif ($command eq "get\n") {
        print $answer{$name} // "NONE\n";
    } else {
        <STDIN>; # what to set it to
        print "not-writable\n";
    }
}
