namespace kit_detail { int anchor = 0; }
