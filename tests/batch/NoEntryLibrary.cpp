// A library that loads but has no unwrap entry, for the batch import's loader test.
extern "C" int NotTheUnwrapEntry(void)
{
    return 42;
}
