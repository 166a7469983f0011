#!/usr/bin/perl
# A server that reads the body of a request slowly, compares it with a file, and says what it found. Prints its port.
use strict;
use warnings;
use IO::Socket::INET;

my $server = IO::Socket::INET->new(LocalAddr => '127.0.0.1', Listen => 1) or die "cannot listen: $!\n";
open(my $expected, '<:raw', $ARGV[0]) or die "$ARGV[0]: $!\n";
$| = 1;
print $server->sockport, "\n";
while (my $client = $server->accept) {
  my $data = '';
  sysread($client, $data, 65536, length $data) or last until $data =~ /\r\n\r\n/;
  my ($length) = $data =~ /^Content-Length: *([0-9]+)\r$/im or die "no length in: $data\n";
  $data =~ s/^.*?\r\n\r\n//s;

  my ($received, $wrong, $rested) = (0, 0, 0);
  seek($expected, 0, 0);
  while (1) {
    read($expected, my $wanted, length $data);
    ++$wrong if $wanted ne $data;
    $received += length $data;
    last if $received >= $length;
    if ($received - $rested >= 4194304) {    # some 10 ms for 4 MiB
      $rested = $received;
      select(undef, undef, undef, 0.01);
    }
    sysread($client, $data, 262144) or last;
  }
  my $answer = "$received bytes, " . ($wrong ? "not all as expected" : "all as expected");
  printf {$client} "HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n%s", length $answer, $answer;
  $client->flush;
  close($client);
}
