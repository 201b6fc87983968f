/* What a terminal's keyboard adds; not among the keysyms that are declared by default. */
#define XK_3270

#include <ryx/inputinjector.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <linux/input-event-codes.h>
#include <string_view>

#include <X11/Sunkeysym.h>
#include <X11/XF86keysym.h>
#include <X11/keysym.h>

static constexpr auto right = RYX_INPUT_INJECTOR_KEY_LOCATION_RIGHT;
static constexpr auto numpad = RYX_INPUT_INJECTOR_KEY_LOCATION_NUMPAD;

struct SpecialKey
{
  std::string_view name;
  guint keysym; /* the only key, or the left one of two */
  RyxInputInjectorKeyLocation variant_location = RYX_INPUT_INJECTOR_KEY_LOCATION_STANDARD;
  guint variant = 0; /* the keysym at that location, 0 when the key is the same everywhere */
};

/* Newer keys have keysyms that are made of the kernel's key codes; X11/XF86keysym.h can't be relied on for them,
 * since some versions undefine the macro that its definitions are written with. */
static constexpr guint
get_evdev_keysym (guint key_code)
{
  return 0x10081000 + key_code;
}

/* In the byte order of the names. Where several keysyms mean the same, it is the one that keyboard maps have. */
static constexpr SpecialKey special_keys[] = {
  { "Again", XK_Redo },
  { "AllCandidates", XK_MultipleCandidate },
  { "Alphanumeric", XK_Eisu_toggle },
  { "Alt", XK_Alt_L, right, XK_Alt_R },
  { "AltGraph", XK_ISO_Level3_Shift },
  { "AppSwitch", get_evdev_keysym (KEY_APPSELECT) },
  { "ArrowDown", XK_Down, numpad, XK_KP_Down },
  { "ArrowLeft", XK_Left, numpad, XK_KP_Left },
  { "ArrowRight", XK_Right, numpad, XK_KP_Right },
  { "ArrowUp", XK_Up, numpad, XK_KP_Up },
  { "Attn", XK_3270_Attn },
  { "AudioVolumeDown", XF86XK_AudioLowerVolume },
  { "AudioVolumeMute", XF86XK_AudioMute },
  { "AudioVolumeUp", XF86XK_AudioRaiseVolume },
  { "Backspace", XK_BackSpace },
  { "BrightnessDown", XF86XK_MonBrightnessDown },
  { "BrightnessUp", XF86XK_MonBrightnessUp },
  { "BrowserBack", XF86XK_Back },
  { "BrowserFavorites", XF86XK_Favorites },
  { "BrowserForward", XF86XK_Forward },
  { "BrowserHome", XF86XK_HomePage },
  { "BrowserRefresh", XF86XK_Reload },
  { "BrowserSearch", XF86XK_Search },
  { "BrowserStop", XF86XK_Stop },
  { "Call", get_evdev_keysym (KEY_PICKUP_PHONE) },
  { "Camera", XF86XK_WebCam },
  { "CameraFocus", get_evdev_keysym (KEY_CAMERA_FOCUS) },
  { "Cancel", XK_Cancel },
  { "CapsLock", XK_Caps_Lock },
  { "ChannelDown", get_evdev_keysym (KEY_CHANNELDOWN) },
  { "ChannelUp", get_evdev_keysym (KEY_CHANNELUP) },
  { "Clear", XK_Clear, numpad, XK_KP_Begin },
  { "Close", XF86XK_Close },
  { "ClosedCaptionToggle", XF86XK_Subtitle },
  { "CodeInput", XK_Codeinput },
  { "ColorF0Red", XF86XK_Red },
  { "ColorF1Green", XF86XK_Green },
  { "ColorF2Yellow", XF86XK_Yellow },
  { "ColorF3Blue", XF86XK_Blue },
  { "Compose", XK_Multi_key },
  { "ContextMenu", XK_Menu },
  { "Control", XK_Control_L, right, XK_Control_R },
  { "Convert", XK_Henkan_Mode },
  { "Copy", XF86XK_Copy },
  { "CrSel", XK_3270_CursorSelect },
  { "Cut", XF86XK_Cut },
  { "Delete", XK_Delete, numpad, XK_KP_Delete },
  { "Eisu", XK_Eisu_toggle },
  { "Eject", XF86XK_Eject },
  { "End", XK_End, numpad, XK_KP_End },
  { "EndCall", get_evdev_keysym (KEY_HANGUP_PHONE) },
  { "Enter", XK_Return, numpad, XK_KP_Enter },
  { "EraseEof", XK_3270_EraseEOF },
  { "Escape", XK_Escape },
  { "ExSel", XK_3270_ExSelect },
  { "Execute", XK_Execute },
  { "F1", XK_F1 },
  { "F10", XK_F10 },
  { "F11", XK_F11 },
  { "F12", XK_F12 },
  { "F13", XK_F13 },
  { "F14", XK_F14 },
  { "F15", XK_F15 },
  { "F16", XK_F16 },
  { "F17", XK_F17 },
  { "F18", XK_F18 },
  { "F19", XK_F19 },
  { "F2", XK_F2 },
  { "F20", XK_F20 },
  { "F21", XK_F21 },
  { "F22", XK_F22 },
  { "F23", XK_F23 },
  { "F24", XK_F24 },
  { "F25", XK_F25 },
  { "F26", XK_F26 },
  { "F27", XK_F27 },
  { "F28", XK_F28 },
  { "F29", XK_F29 },
  { "F3", XK_F3 },
  { "F30", XK_F30 },
  { "F31", XK_F31 },
  { "F32", XK_F32 },
  { "F33", XK_F33 },
  { "F34", XK_F34 },
  { "F35", XK_F35 },
  { "F4", XK_F4 },
  { "F5", XK_F5 },
  { "F6", XK_F6 },
  { "F7", XK_F7 },
  { "F8", XK_F8 },
  { "F9", XK_F9 },
  { "Find", XK_Find },
  { "Fn", get_evdev_keysym (KEY_FN) },
  { "GroupFirst", XK_ISO_First_Group },
  { "GroupLast", XK_ISO_Last_Group },
  { "GroupNext", XK_ISO_Next_Group },
  { "GroupPrevious", XK_ISO_Prev_Group },
  { "HangulMode", XK_Hangul },
  { "HanjaMode", XK_Hangul_Hanja },
  { "Hankaku", XK_Hankaku },
  { "Help", XK_Help },
  { "Hibernate", XF86XK_Hibernate },
  { "Hiragana", XK_Hiragana },
  { "HiraganaKatakana", XK_Hiragana_Katakana },
  { "Home", XK_Home, numpad, XK_KP_Home },
  { "Hyper", XK_Hyper_L, right, XK_Hyper_R },
  { "Info", get_evdev_keysym (KEY_INFO) },
  { "Insert", XK_Insert, numpad, XK_KP_Insert },
  { "JunjaMode", XK_Hangul_Jeonja },
  { "KanaMode", XK_Kana_Lock },
  { "KanjiMode", XK_Kanji },
  { "Katakana", XK_Katakana },
  { "Key11", get_evdev_keysym (KEY_NUMERIC_11) },
  { "Key12", get_evdev_keysym (KEY_NUMERIC_12) },
  { "LaunchApplication1", XF86XK_MyComputer },
  { "LaunchApplication2", XF86XK_Calculator },
  { "LaunchCalculator", XF86XK_Calculator },
  { "LaunchCalendar", XF86XK_Calendar },
  { "LaunchContacts", get_evdev_keysym (KEY_ADDRESSBOOK) },
  { "LaunchMail", XF86XK_Mail },
  { "LaunchMediaPlayer", XF86XK_AudioMedia },
  { "LaunchMusicPlayer", XF86XK_Music },
  { "LaunchMyComputer", XF86XK_MyComputer },
  { "LaunchPhone", XF86XK_Phone },
  { "LaunchScreenSaver", XF86XK_ScreenSaver },
  { "LaunchSpreadsheet", XF86XK_Excel },
  { "LaunchWebBrowser", XF86XK_WWW },
  { "LaunchWebCam", XF86XK_WebCam },
  { "LaunchWordProcessor", XF86XK_Word },
  { "LogOff", XF86XK_LogOff },
  { "MailForward", XF86XK_MailForward },
  { "MailReply", XF86XK_Reply },
  { "MailSend", XF86XK_Send },
  { "MediaAudioTrack", XF86XK_AudioCycleTrack },
  { "MediaFastForward", XF86XK_AudioForward },
  { "MediaPause", XF86XK_AudioPause },
  { "MediaPlay", XF86XK_AudioPlay },
  { "MediaPlayPause", XF86XK_AudioPlay },
  { "MediaRecord", XF86XK_AudioRecord },
  { "MediaRewind", XF86XK_AudioRewind },
  { "MediaStepBackward", XF86XK_FrameBack },
  { "MediaStepForward", XF86XK_FrameForward },
  { "MediaStop", XF86XK_AudioStop },
  { "MediaTopMenu", get_evdev_keysym (KEY_MEDIA_TOP_MENU) },
  { "MediaTrackNext", XF86XK_AudioNext },
  { "MediaTrackPrevious", XF86XK_AudioPrev },
  { "Meta", XK_Super_L, right, XK_Super_R },
  { "MicrophoneToggle", XF86XK_AudioMicMute },
  { "MicrophoneVolumeMute", XF86XK_AudioMicMute },
  { "ModeChange", XK_Mode_switch },
  { "New", XF86XK_New },
  { "NextFavoriteChannel", get_evdev_keysym (KEY_NEXT_FAVORITE) },
  { "NonConvert", XK_Muhenkan },
  { "Notification", get_evdev_keysym (KEY_NOTIFICATION_CENTER) },
  { "NumLock", XK_Num_Lock },
  { "OS", XK_Super_L, right, XK_Super_R },
  { "OnDemand", get_evdev_keysym (KEY_VOD) },
  { "Open", XF86XK_Open },
  { "PageDown", XK_Page_Down, numpad, XK_KP_Page_Down },
  { "PageUp", XK_Page_Up, numpad, XK_KP_Page_Up },
  { "Paste", XF86XK_Paste },
  { "Pause", XK_Pause },
  { "Play", XK_3270_Play },
  { "Power", XF86XK_PowerOff },
  { "PowerOff", XF86XK_PowerOff },
  { "PreviousCandidate", XK_PreviousCandidate },
  { "Print", XK_Print },
  { "PrintScreen", XK_Print },
  { "Props", SunXK_Props },
  { "RandomToggle", XF86XK_AudioRandomPlay },
  { "Redo", XK_Redo },
  { "Romaji", XK_Romaji },
  { "Save", XF86XK_Save },
  { "ScreenModeNext", get_evdev_keysym (KEY_ASPECT_RATIO) },
  { "ScrollLock", XK_Scroll_Lock },
  { "Select", XK_Select },
  { "Separator", XK_KP_Separator },
  { "Shift", XK_Shift_L, right, XK_Shift_R },
  { "SingleCandidate", XK_SingleCandidate },
  { "SpeechInputToggle", get_evdev_keysym (KEY_DICTATE) },
  { "SpellCheck", get_evdev_keysym (KEY_SPELLCHECK) },
  { "SplitScreenToggle", XF86XK_SplitScreen },
  { "Standby", XF86XK_Sleep },
  { "Subtitle", XF86XK_Subtitle },
  { "Super", XK_Super_L, right, XK_Super_R },
  { "TV3DMode", get_evdev_keysym (KEY_3D_MODE) },
  { "TVAudioDescription", get_evdev_keysym (KEY_AUDIO_DESC) },
  { "Tab", XK_Tab },
  { "Undo", XK_Undo },
  { "VideoModeNext", XF86XK_Next_VMode },
  { "WakeUp", XF86XK_WakeUp },
  { "Zenkaku", XK_Zenkaku },
  { "ZenkakuHankaku", XK_Zenkaku_Hankaku },
  { "ZoomIn", XF86XK_ZoomIn },
  { "ZoomOut", XF86XK_ZoomOut },
  { "ZoomToggle", XF86XK_FullScreen },
};

static_assert (std::ranges::is_sorted (special_keys, std::ranges::less_equal (), &SpecialKey::name),
               "looked up by bisection");

guint
ryx_special_key_string_to_keyval (const gchar *name, RyxInputInjectorKeyLocation location)
{
  g_return_val_if_fail (name, 0);

  const std::string_view wanted = name;
  const SpecialKey *key = std::ranges::lower_bound (special_keys, wanted, {}, &SpecialKey::name);

  if (key == std::end (special_keys) || key->name != wanted)
    return 0;
  return key->variant != 0 && location == key->variant_location ? key->variant : key->keysym;
}
