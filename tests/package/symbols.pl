#!/usr/bin/env perl
# The symbols that the shared libraries promise: those exported that a public header declares, and the
# tables of its classes.
#   symbols.pl check|renew LIST_DIRECTORY LIBRARY_DIRECTORY HEADER...
# check: fails when one that is listed is not exported any more; a new one is told only.
# renew: writes the lists.
use strict;
use warnings;
use FindBin;
use lib $FindBin::Bin;
use Declared;

my ($task, $lists, $libraries, @headers) = @ARGV;
my $text = Declared::read_headers(@headers);

# Weak symbols, other than the tables, are what a compiler made of inline functions.
sub is_promised {
    my ($kind, $symbol) = @_;
    return scalar Declared::headers_with($text, $1, qr//)
        if $kind eq 'V' and $symbol =~ /^(?:vtable|typeinfo) for (?!std::)(?:\w+::)*(\w+)$/;
    return 0 unless $kind =~ /[TDBR]/;
    return 0 unless $symbol =~
        /^(?:\w+::)*?(?:(\w+)::)?(operator(?: \w+|[^\w\s(]+)|~?\w+)(?:\[abi:\w+\])?(\(|$)/;
    my ($scope, $name, $is_function) = ($1 // '', $2, $3 eq '(');
    my $word = $is_function ? Declared::function($name) : qr/\b\Q$name\E\b/;
    return scalar Declared::headers_with($text, $scope, $word);
}

sub promised {
    my ($library) = @_;
    my %found;
    for (`nm -DC --defined-only '$library'`) {
        $found{$2} = 1 if /^\w+ (\w) (.+)$/ and is_promised($1, $2);
    }
    die "$library: no symbols\n" unless %found;
    return \%found;
}

my $gone = 0;
for my $library (sort glob "$libraries/libKVX*.so") {
    my ($name) = $library =~ m{([^/]+)\.so$};
    my $now = promised($library);
    my $list = "$lists/$name.txt";
    if ($task eq 'renew') {
        open my $out, '>', $list or die "$list: $!";
        print {$out} "$_\n" for sort keys %$now;
        next;
    }
    open my $in, '<', $list or die "$list: $!";
    chomp(my @listed = <$in>);
    my %listed = map { $_ => 1 } @listed;
    $gone += print "gone from $name: $_\n" for grep { not $now->{$_} } @listed;
    print "new in $name: $_\n" for grep { not $listed{$_} } sort keys %$now;
}
print "A symbol that is gone breaks programs. Build the target \"symbols\" to renew $lists.\n" if $gone;
exit($gone ? 1 : 0);
