// Kept out of the optimisation by marker comments.
var legacyCounter = 3;
__probe.mark('legacy.js');
