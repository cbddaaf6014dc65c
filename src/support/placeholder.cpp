// Keeps the support library non-empty until its first parts land.
