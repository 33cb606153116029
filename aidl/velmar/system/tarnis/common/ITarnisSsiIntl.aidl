package velmar.system.tarnis.common;

// The vendor peer daemon sends its broadcast intents into this process here:
// the intent's action and its JSON wire form.
@VintfStability
interface ITarnisSsiIntl {
    void transferMessage(@utf8InCpp String action, @utf8InCpp String json);
}
