package vendor.velmar.hardware.kolto.common;

// The vendor peer daemon's half of the broadcast exchange: this process sends
// its cross-process intents there, in the same shape as ITarnisSsiIntl.
@VintfStability
interface ITarnisIntl {
    void transferMessage(@utf8InCpp String action, @utf8InCpp String json);
}
