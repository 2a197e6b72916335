@0xc5a1bd3e9f0472d6;

interface Echo {
  call @0 (data :Data) -> (data :Data);
  push @1 (data :Data) -> stream;
}
