#!/usr/bin/env perl
# Names every function that an installed header declares and no installed library exports.
#   hidden_functions.pl INCLUDE_DIRECTORY LIBRARY_DIRECTORY ARCHIVE...
# The archives hold what the libraries are made of; inline functions, which users have from the
# headers, are weak there. A header declares a function when it has the innermost scope of the
# function's name, a class or a namespace, and the function's own name.
use strict;
use warnings;

my ($include, $libraries, @archives) = @ARGV;
my %text;
for my $file (split /\n/, `find '$include' -name '*.h'`) {
    open my $in, '<', $file or die "$file: $!";
    local $/;
    ($text{$file} = <$in>) =~ s{//.*}{}g;
}
my %exported = map { s/^\w+ \w //r => 1 } `nm -DC --defined-only '$libraries'/libKVX*.so`;
die "the libraries export nothing\n" unless %exported;
my %found;
for (map { `nm -C --defined-only '$_'` } @archives) {
    next unless s/^\w+ T // and not $exported{$_} and /^((?:\w+::)*)(\w+)::(~?\w+)(?:\[abi:\w+\])?\(/;
    my ($outer, $scope, $name) = ($1, $2, $3);
    for my $file (keys %text) {
        next unless $text{$file} =~ /\b(?:class|struct|namespace)\s+(?:\w+\s+|\w+::)*$scope\b[^;]*?\{/;
        next unless $text{$file} =~ /(?<![\w:.>])\Q$name\E\s*\(/;
        $found{"$file declares $outer${scope}::$name"} = 1;
    }
}
print "$_\n" for sort keys %found;
exit(%found ? 1 : 0);
