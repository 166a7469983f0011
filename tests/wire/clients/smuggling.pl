#!/usr/bin/perl
# Sends every message of the table, all at once: smuggling.pl NAME ADDRESS [STRICT]. NAME marks the requests, so that
# the logs tell who has seen what. Prints a line for each message: its mark and the statuses of the replies. With STRICT
# these must be the ones of the table.
use strict;
use warnings;
use IO::Select;
use IO::Socket::INET;

my ($name, $address, $strict) = @ARGV;

# In each message {m} is the mark of the request itself, {s} that of one that could be smuggled behind it.
my $smuggled = "GET /hello?{s} HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n";
sub post { "POST /echo?{m} HTTP/1.1\r\nHost: x\r\n" . $_[0] . "\r\n" . $_[1] . $smuggled }
sub get { "GET /hello?{m} HTTP/1.1\r\nHost: x\r\n" . $_[0] . "\r\n" . $smuggled }
sub line { "$_[0]\r\nHost: x\r\n\r\n$smuggled" }
sub chunked { post("Transfer-Encoding: chunked\r\n", $_[0]) }
my $end = "0\r\n\r\n";
my $five = "5\r\nhello\r\n$end";

# What a strict server answers, and the message.
my @table = (
  # Nothing is wrong with these.
  ['200 200', get('')],
  ['200 200', post("Content-Length: 5\r\n", 'hello')],
  ['200 200', post("Content-Length: 0\r\n", '')],
  ['200 200', post('', '')],
  ['200 200', chunked($five)],
  ['200 200', chunked($end)],
  ['200 200', chunked("00005\r\nhello\r\n000\r\n\r\n")],
  ['200 200', chunked("A\r\n0123456789\r\na\r\n0123456789\r\n$end")],
  ['200 200', get("Content-Length: 5\r\n") =~ s/\r\n\r\n/\r\n\r\nhello/r],
  ['200 200', get("Transfer-Encoding: chunked\r\n") =~ s/\r\n\r\n/\r\n\r\n$five/r],

  # Two lengths, or a length and a coding.
  ['400', post("Content-Length: 5\r\nTransfer-Encoding: chunked\r\n", $end)],
  ['400', post("Transfer-Encoding: chunked\r\nContent-Length: 5\r\n", $end)],
  ['400', post("Content-Length: 30\r\nTransfer-Encoding: chunked\r\n", $end)],
  ['400', post("Content-Length: 0\r\nTransfer-Encoding: chunked\r\n", $five)],
  ['400', post("Content-Length: 0\r\nContent-Length: 30\r\n", '')],
  ['400', post("Content-Length: 30\r\nContent-Length: 0\r\n", '')],
  ['400', post("Content-Length: 5\r\nContent-Length: 5\r\n", 'hello')],
  ['400', post("Content-Length: 5\r\ncontent-length: 6\r\n", 'hello')],
  ['400', post("Content-Length: 5, 6\r\n", 'hello')],
  ['400', post("Content-Length: 5, 5\r\n", 'hello')],
  ['400', post("Content-Length: 5\r\nX: y\r\nTransfer-Encoding: identity\r\n", 'hello')],

  # Lengths that are none.
  ['400', post("Content-Length: +5\r\n", 'hello')],
  ['400', post("Content-Length: -5\r\n", 'hello')],
  ['400', post("Content-Length: 0x5\r\n", 'hello')],
  ['400', post("Content-Length: 5a\r\n", 'hello')],
  ['400', post("Content-Length: 5 5\r\n", 'hello')],
  ['400', post("Content-Length: 5.0\r\n", 'hello')],
  ['400', post("Content-Length:\r\n", 'hello')],
  ['400', post("Content-Length: \"5\"\r\n", 'hello')],
  ['400', post("Content-Length: 18446744073709551621\r\n", 'hello')],
  ['400', post("Content-Length: 99999999999999999999999999\r\n", 'hello')],
  ['413', post("Content-Length: 4294967301\r\n", 'hello')],

  # Codings other than chunked alone.
  ['400', post("Transfer-Encoding: gzip, chunked\r\n", $five)],
  ['400', post("Transfer-Encoding: chunked, chunked\r\n", $five)],
  ['400', post("Transfer-Encoding: chunked, identity\r\n", $five)],
  ['400', post("Transfer-Encoding: identity\r\n", $five)],
  ['400', post("Transfer-Encoding: xchunked\r\n", $five)],
  ['400', post("Transfer-Encoding: chunkedx\r\n", $five)],
  ['400', post("Transfer-Encoding: \"chunked\"\r\n", $five)],
  ['400', post("Transfer-Encoding: chunked;a=b\r\n", $five)],
  ['400', post("Transfer-Encoding: ,chunked\r\n", $five)],
  ['400', post("Transfer-Encoding:\r\n", $five)],
  ['400', post("Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n", $five)],
  ['400', post("Transfer-Encoding: chunked\r\nTransfer-Encoding: identity\r\n", $five)],
  ['400', post("Transfer-Encoding: \x0bchunked\r\n", $five)],
  ['400', chunked($five) =~ s/HTTP\/1\.1/HTTP\/1.0/r],

  # Names that one reader takes for the header, and another one does not.
  ['400', post("Content-Length : 5\r\n", 'hello')],
  ['400', post("Content-Length\t: 5\r\n", 'hello')],
  ['400', post("Transfer-Encoding : chunked\r\n", $five)],
  ['400', post("Content-Length: 5\r\nTransfer-Encoding : chunked\r\n", $end)],
  ['400', post(" Content-Length: 5\r\n", 'hello')],
  ['400', post("X: y\r\n Content-Length: 5\r\n", 'hello')],
  ['400', post("X: y\r\n\tTransfer-Encoding: chunked\r\n", $five)],
  ['400', post("Content-Length\0: 5\r\n", 'hello')],
  ['400', post("Content-Length: 5\0\r\n", 'hello')],
  ['400', post("\0Content-Length: 5\r\n", 'hello')],
  ['400', post("Transfer-Encoding\x0b: chunked\r\n", $five)],
  ['400', post("Content-Length\r\n", 'hello')],
  ['400', post(": 5\r\n", 'hello')],
  ['400', post("X: y\rContent-Length: 5\r\n", 'hello')],
  ['400', post("X: y\nContent-Length: 5\r\n", 'hello')],
  ['400', post("X: y\n\nContent-Length: 5\r\n", 'hello')],
  ['200 200', post("Content_Length: 5\r\n", '')],
  ['400', "GET /hello?{m} HTTP/1.1\nHost: x\n\n$smuggled"],

  # Chunks. A reply that has begun to echo what was in order is cut.
  ['400', chunked("5;a=b\r\nhello\r\n$end")],
  ['400', chunked("5 \r\nhello\r\n$end")],
  ['400', chunked(" 5\r\nhello\r\n$end")],
  ['400', chunked("0x5\r\nhello\r\n$end")],
  ['400', chunked("+5\r\nhello\r\n$end")],
  ['400', chunked("-5\r\nhello\r\n$end")],
  ['400', chunked("5\nhello\r\n$end")],
  ['200', chunked("5\r\nhello\n$end")],
  ['200', chunked("5\r\nhello0\r\n\r\n$end")],
  ['400', chunked("\r\nhello\r\n$end")],
  ['400', chunked("10000000000000005\r\nhello\r\n$end")],
  ['400', chunked("100000005\r\nhello\r\n$end")],
  ['200', chunked("5\r\nhello\r\n0\n\n")],

  # First lines, and whom a request is for.
  ['400', line('GET  /hello?{m} HTTP/1.1')],
  ['400', line("GET\t/hello?{m} HTTP/1.1")],
  ['400', line('GET /hello?{m} x HTTP/1.1')],
  ['400', line('GET /hello?{m} HTTP/1.1 ')],
  ['400', line('GET /hello?{m}')],
  ['505', line('GET /hello?{m} HTTP/2.0')],
  ['505', line('GET /hello?{m} HTTP/0.9')],
  ['505', line('GET /hello?{m} HTTP/1.2')],
  ['505', line('GET /hello?{m} HTTP/1.11')],
  ['505', line('GET /hello?{m} http/1.1')],
  ['400', line('G(T /hello?{m} HTTP/1.1')],
  ['501', line('GOT /hello?{m} HTTP/1.1')],
  ['400', get("Host: y\r\n")],
  ['400', get("Host: x\r\n")],
  ['400', "GET /hello?{m} HTTP/1.1\r\n\r\n$smuggled"],
  ['400', line('GET http://y/hello?{m} HTTP/1.1')],
  ['404 200', line('GET http://x/hello?{m} HTTP/1.1')],
);

sub connect_to {
  my $socket = IO::Socket::INET->new(PeerAddr => $address, Timeout => 10) or die "cannot connect to $address: $!\n";
  $socket->blocking(0);
  return $socket;
}

# Everything is small enough to be sent at once.
my (%exchanges, $select);
$select = IO::Select->new;
for my $number (0 .. $#table) {
  my $message = $table[$number][1];
  $message =~ s/\{([ms])\}/$name$number$1/g;
  my $socket = connect_to();
  syswrite($socket, $message) == length $message or die "message $number could not be sent\n";
  $select->add($socket);
  $exchanges{$socket} = {number => $number, received => ''};
}

# Whoever still waits for more is left after a while.
my $until = time + 5;
while ($select->count > 0 && time < $until) {
  for my $socket ($select->can_read(0.2)) {
    my $exchange = $exchanges{$socket};
    my $count = sysread($socket, $exchange->{received}, 65536, length $exchange->{received});
    $select->remove($socket) if !$count;
  }
}

my $wrong = 0;
for my $exchange (sort { $a->{number} <=> $b->{number} } values %exchanges) {
  my $statuses = join ' ', $exchange->{received} =~ /HTTP\/1\.[01] ([0-9]{3}) /g;
  my $expected = $table[$exchange->{number}][0];
  print "$name$exchange->{number} $statuses\n";
  next if !$strict || $statuses eq $expected;
  $wrong = 1;
  (my $shown = $table[$exchange->{number}][1]) =~ s/([\r\n\t\0\x0b])/sprintf '\\x%02x', ord $1/ge;
  print STDERR "expected $expected, got '$statuses' for $shown\n";
}
printf "%d messages\n", scalar @table;
exit $wrong;
