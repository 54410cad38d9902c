namespace velt_core_detail { int anchor = 0; }
