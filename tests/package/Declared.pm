# Which names headers declare.
package Declared;
use strict;
use warnings;

# The texts of headers by file, without comments.
sub read_headers {
    my %text;
    for my $file (@_) {
        open my $in, '<', $file or die "$file: $!";
        local $/;
        ($text{$file} = <$in>) =~ s{//.*}{}g;
    }
    return \%text;
}

# The headers that have the class or namespace `scope`, any if it is empty, and in it, as far as can be
# seen, something that matches `pattern`.
sub headers_with {
    my ($text, $scope, $pattern) = @_;
    my $opens = qr/\b(?:class|struct|namespace)\s+(?:\w+\s+|\w+::)*\Q$scope\E\b[^;]*?\{/;
    return grep { ($scope eq '' or $text->{$_} =~ $opens) and $text->{$_} =~ $pattern } sort keys %$text;
}

# What calls or declares the function `name`.
sub function { return qr/(?<![\w:.>])\Q$_[0]\E\s*\(/ }

1;
