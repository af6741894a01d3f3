"""Decisions about the audio, one table for each: how much of every collection training hears, what it
never hears, and which noises belong together.

Three sides. Training reads "train". "near" is a tenth of the talkers, noises and responses of the
collections that are trained on: the same kind of recording, other people. "far" is whole collections
and a part of some others that training never reads: recordings from elsewhere, which decisions are
taken on. A side goes by the name of a talker or of a recording alone, so that a talker who is in two
collections is on one side."""

import re
import zlib

SIDES = ("train", "near", "far")
NEAR_OUT_OF = 10
FAR_OUT_OF = 4

# Weight of a collection among the talkers of scenes, and why. Within a collection talkers are drawn by
# the square root of their minutes; whoever is still above MOST_OF_A_TALKER is cut down to it.
MOST_OF_A_TALKER = 0.02
SPEECH_WEIGHTS = {
    "librispeech_resemblyzer": (0.22, "the most talkers who read whole sentences"),
    "commands": (0.16, "many talkers, whole sentences, as devices hear them"),
    "gcompris": (0.10, "forty languages, but words"),
    "keywords": (0.10, "the most devices and rooms, but six words"),
    "toolkit_samples": (0.10, "fifteen languages, sentences"),
    "community": (0.05, "many talkers, short phrases"),
    "mimic3_synthetic": (0.05, "synthetic: for its languages only"),
    "cmu_arctic": (0.04, "studio sentences of two talkers"),
    "arabic_cmd": (0.03, "thirty talkers, forty words"),
    "klettres": (0.03, "many languages, syllables"),
    "ktuberling": (0.03, "many languages, words"),
    "smc_msc": (0.03, "recorded through a noise suppressor, so the target is damaged"),
    "german": (0.02, "one talker"),
    "dutch": (0.02, "one talker"),
    "ljs": (0.02, "one talker"),
    "sugarizer": (0.02, "six talkers, words"),
    "artikulate": (0.02, "two talkers, phrases"),
    "shawn_kws": (0.015, "a few talkers, keywords"),
    "audio_cmn": (0.01, "one talker, words"),
}
OTHER_WEIGHT = 0.02  # of a collection that is not listed

# In these, file names do not name talkers; where there are many, neighbouring numbers mostly belong
# to one.
UNNAMED_TALKERS = {"commands", "keywords", "community"}
ONE_TALKER = {"german", "dutch"}
CLIPS_PER_TALKER = 25
SYNTHETIC_SPEECH = {"mimic3_synthetic"}

FAR = {"speech/cml_tts_demo", "speech/emodb", "speech/codec_samples", "speech/watson",
       "noise/berlin-noise", "noise/rivea0-ambient",
       "rooms/bbcrd-listening-room", "rooms/webaudio-samples"}
FAR_IN_PART = {"speech/librispeech_resemblyzer", "speech/toolkit_samples", "noise/cyberoohim-ambient",
               "noise/esc50"}
FAR_ROOMS = {"r3vival-lab/absorptive-000"}  # the wall setting with the longest reverberation

REFUSED_NOISE = (  # pattern of "collection/name", why
    (r".*/(crying|laughing|laugh|coughing)-", "a voice, which is to survive"),
    (r"cyberoohim-ambient/.*-event-", "cut from another recording of the collection"),
)

# Groups of noise, how often each is drawn, and beginnings of the names that belong to it; the longest
# that fits decides. By what devices meet, not by minutes.
NOISE_GROUPS = {
    "street": (0.16, "city traffic urban v8 motorbike park"),
    "vehicle": (0.14, "airplane aircraft transport train bus car engine engines helicopter jet "
                      "combustion things-windshield rain-rain-on-car car-engine"),
    "people": (0.17, "cafe crowd places children babble indoor applause clapping urban-crowd "
                     "ambient-cc-sounds-indoors library"),
    "typing": (0.12, "keyboard typing mouse pencil chalk paper things-keyboard things-typewriter "
                     "things-paper"),
    "handling": (0.15, "door doors can glass footsteps steps dishes drinking pouring toilet brushing "
                       "ceramic chain clear concrete metal plastic plmove rear trunk walk window wood "
                       "zipper coin misc tool breathing sneezing snoring "
                       "hand"),
    "machine": (0.12, "vacuum washing machine humming electric chainsaw compressor things bicycle "
                      "indoor-ac clock"),
    "nature": (0.08, "wind rain thunder thunderstorm storm water waves ocean stream waterfall river "
                     "nature forest field fire crackling cave environment leaves ambient fireworks "
                     "things-boiling things-bubbles urban-fireworks urban-park sea"),
    "animals": (0.03, "animals birds bird cat dog cow crow hen pig rooster sheep frog frogs insects "
                      "chirping crickets cricket bee bees chicken cicada duck goat goose grasshopper "
                      "horse lamb owl pigeon puppy seagull seagulls woodpecker"),
    "alarm": (0.03, "alarm church siren doorbell horn car-horn urban-ambulance ambient-cc-sounds-police "
                    "things-wind-chimes things-singing-bowl places-temple places-church places-carousel "
                    "rear-beeper"),
}
_BEGINNINGS = {beginning: group for group, (_, names) in NOISE_GROUPS.items()
               for beginning in names.split()}

_MALE = {"de_emo03", "de_emo10", "de_emo11", "de_emo12", "de_emo15", "en_arctic_bdl", "codec_david_vk5dgr",
         "codec_jh0veq_yuichi"}
_FEMALE = {"de_emo08", "de_emo09", "de_emo13", "de_emo14", "de_emo16", "en_arctic_slt", "en_lj", "kerstin",
           "nathalie", "zh_hsk", "codec_w0atn_phyllis"}
_LANGUAGES = {"commands": "en", "keywords": "en", "german": "de", "dutch": "nl", "artikulate": "",
              "codec_samples": "en"}
_NAMED_LANGUAGES = {"dutc": "nl", "fren": "fr", "germ": "de", "ital": "it", "poli": "pl", "port": "pt",
                    "span": "es", "dutch": "nl", "ba": "ba", "gr": "el"}


def _hash(name: str) -> int:
    return zlib.crc32(name.encode())


def side_of(collection: str, identity: str) -> str:
    """`collection` as "speech/ljs", `identity` of the talker, the recording or the response."""
    if collection in FAR or (collection in FAR_IN_PART and _hash(identity) % FAR_OUT_OF == 1):
        return "far"
    return "near" if _hash(identity) % NEAR_OUT_OF == 0 else "train"


def talker_of(collection: str, stem: str) -> str:
    """Name of the talker of a clip."""
    if collection in ONE_TALKER:
        return {"german": "kerstin", "dutch": "nathalie"}[collection]
    if collection in UNNAMED_TALKERS:
        numbered = re.fullmatch(r"(?:(.*)-)?(\d+)", stem)
        if not numbered:
            return f"{collection}/{stem}"
        return f"{collection}/{numbered[1] or ''}{int(numbered[2]) // CLIPS_PER_TALKER}"
    return stem.rpartition("-")[0] or stem


def recording_of(collection: str, stem: str) -> str:
    """Name of what clips of noise were cut from: parts and takes of one recording stay together."""
    if collection == "esc50":
        return stem.rpartition("-")[0].rpartition("-")[2]
    return re.sub(r"-p?\d+$", "", stem)


def refusal_of_noise(collection: str, stem: str) -> str:
    """Why a noise is not taken; "" where it is."""
    return next((why for pattern, why in REFUSED_NOISE if re.match(pattern, f"{collection}/{stem}")), "")


def room_of(collection: str, stem: str) -> str:
    """Name of the room that a response was measured in."""
    if collection == "r3vival-lab":
        return f"{collection}/{'-'.join(stem.split('-')[:2])}"
    if collection == "webaudio-samples":  # a house: what was measured in one room is one pair
        return f"{collection}/{re.sub('-[lr]$', '', stem)}"
    if collection == "surrey-room-a":  # the ears of a dummy head share no level or start
        return f"{collection}/{stem[-1]}"
    return collection


def distance_of(collection: str, stem: str) -> float:
    """Metres between loudspeaker and microphones of a measured response, as far as it is told."""
    told = re.search(r"-s\d+-(\d+)-r", stem) if collection == "r3vival-lab" else None
    return int(told[1]) / 100 if told else 1.5


def noise_group(stem: str) -> str:
    """Key of NOISE_GROUPS, or "other"."""
    words = stem.split("-")
    for count in range(len(words), 0, -1):
        group = _BEGINNINGS.get("-".join(words[:count]))
        if group:
            return group
    return "other"


def language_of(collection: str, talker: str) -> str:
    """Two letters, or "" where nothing tells."""
    if collection in _LANGUAGES and _LANGUAGES[collection]:
        return _LANGUAGES[collection]
    if collection == "watson":
        told = re.match(r"watson_([a-z]{2})[A-Z]{2}\d", talker)
        return told[1] if told else "nl" if "dutch" in talker else ""
    for pattern in (r"(?:mls_|basic_)([a-z]+)\d*", r"az_([a-z]{2})_", r"pv_[a-z]{4}_([a-z]{2})(?![a-z])",
                    r"(?:kl|kt|sz|syn|cv)_([a-z]{2,3})(?![a-z])", r"(?!gc|pv|ub)([a-z]{2})_"):
        told = re.match(pattern, talker)
        if told:
            return _NAMED_LANGUAGES.get(told[1], told[1])
    return ""


def sex_of(talker: str) -> str:
    """"female", "male", or "" where nothing tells."""
    return "female" if talker in _FEMALE else "male" if talker in _MALE else ""
