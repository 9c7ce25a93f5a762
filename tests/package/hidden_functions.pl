#!/usr/bin/env perl
# Names every function that an installed header declares and no installed library exports.
#   hidden_functions.pl INCLUDE_DIRECTORY LIBRARY_DIRECTORY ARCHIVE...
# The archives hold what the libraries are made of; inline functions, which users have from the
# headers, are weak there. A header declares a function when it has the innermost scope of the
# function's name, a class or a namespace, and the function's own name.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin;
use Declared;

my ($include, $libraries, @archives) = @ARGV;
my $text = Declared::read_headers(split /\n/, `find '$include' -name '*.h'`);
my %exported = map { s/^\w+ \w //r => 1 } `nm -DC --defined-only '$libraries'/libKVX*.so`;
die "the libraries export nothing\n" unless %exported;
my %found;
for (map { `nm -C --defined-only '$_'` } @archives) {
    next unless s/^\w+ T // and not $exported{$_} and /^((?:\w+::)*)(\w+)::(~?\w+)(?:\[abi:\w+\])?\(/;
    my ($outer, $scope, $name) = ($1, $2, $3);
    $found{"$_ declares $outer${scope}::$name"} = 1
        for Declared::headers_with($text, $scope, Declared::function($name));
}
print "$_\n" for sort keys %found;
exit(%found ? 1 : 0);
