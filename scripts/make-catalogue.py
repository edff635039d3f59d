#!/usr/bin/env python3
"""Writes Resources/sandbox/catalogue.json: the sandbox service's sample data.

Deterministic (a fixed seed), so the file only changes when this script does.
URLs are written with the placeholder {base}, which the sandbox replaces with
its own address when it serves them.
"""
import json
import random
from datetime import datetime, timedelta, timezone

rng = random.Random(20261121)
WORDS = "night drive summer glass blue wave dream fire stone road home quiet lights orbit hour paper river echo velvet neon".split()
GENRES = ["Deep House", "Techno", "Ambient", "Hip Hop", "Jazz", "Drum & Bass", "Indie", "Classical"]
CITIES = [("Berlin", "Germany"), ("London", "United Kingdom"), ("Lagos", "Nigeria"), ("Tokyo", "Japan"), ("São Paulo", "Brazil"),
          ("Montréal", "Canada"), ("Oslo", "Norway"), ("Seoul", "South Korea")]
FIRST = ["Ada", "Björn", "Chiamaka", "Dmitri", "Elif", "Fatima", "Gustavo", "Hana", "Ines", "Jonas", "Kofi", "Lea", "Mateo", "Noor", "Oskar"]
LAST = ["Okafor", "Lindqvist", "Tanaka", "Ivanova", "Moreau", "Silva", "Kim", "Nowak", "Haddad", "Berg"]
STATES = ["storing", "stored", "finished", "failed"]
START = datetime(2011, 3, 14, 9, 26, 53, tzinfo=timezone.utc)


def stamp(moment):
    return moment.strftime("%Y/%m/%d %H:%M:%S +0000")


def phrase(count):
    return " ".join(rng.choice(WORDS) for _ in range(count))


users = []
for index in range(30):
    uid = 1000 + index
    first, last = rng.choice(FIRST), rng.choice(LAST)
    username = f"{first.lower()}_{rng.choice(WORDS)}{index}"
    city, country = rng.choice(CITIES)
    users.append({
        "id": uid, "kind": "user", "username": username, "full_name": f"{first} {last}", "permalink": username.replace("_", "-"),
        "description": phrase(8) if index % 4 else None, "city": city, "country": country,
        "discogs_name": None if index % 3 else f"{first}{last}", "lastfm_name": username if index % 2 else None, "myspace_name": None,
        "website": f"{{base}}/sites/{username}" if index % 3 == 0 else None, "website_title": f"{first}'s page" if index % 3 == 0 else None,
        "online": "true" if index % 5 == 0 else "false",
        "avatar_url": f"{{base}}/images/avatars/{uid}-large.png",
        "permalink_url": f"{{base}}/people/{username.replace('_', '-')}", "uri": f"{{base}}/users/{uid}",
        "plan": rng.choice(["Free", "Lite", "Pro", "Pro Plus"]), "public_favorites_count": 0, "primary_email_confirmed": index % 7 != 0,
    })

tracks = []
for index in range(300):
    tid = 20000 + index
    owner = users[index % 30]
    title = phrase(rng.randint(2, 4)).title()
    created = START + timedelta(days=index * 3, minutes=rng.randint(0, 1440))
    state = STATES[index % 4] if index % 10 == 0 else "finished"
    if index in (1, 2, 3):
        state = STATES[index]
    private = index % 9 == 0
    permalink = title.lower().replace(" ", "-")
    tracks.append({
        "id": tid, "kind": "track", "created_at": stamp(created), "user_id": owner["id"],
        "duration": rng.randint(30_000, 600_000) if index % 25 else 500, "commentable": index % 6 != 0, "state": state,
        "sharing": "private" if private else "public",
        "tag_list": " ".join(rng.sample(WORDS, 2)) + (' "hip hop"' if index % 5 == 0 else ""),
        "permalink": permalink, "description": phrase(12) if index % 3 else "", "streamable": True, "downloadable": index % 4 == 0,
        "genre": rng.choice(GENRES), "release": f"REL{index:03d}" if index % 8 == 0 else None,
        "purchase_url": f"{{base}}/shop/{tid}" if index % 7 == 0 else None, "label_id": None, "label_name": "Blue Night Records" if index % 5 == 0 else None,
        "isrc": f"QZ{tid:010d}", "video_url": None, "track_type": rng.choice(["original", "remix", "live", None]),
        "key_signature": rng.choice(["C", "Am", "F#m", None]), "bpm": rng.choice([None, 90, 120, 128, 174]), "title": title,
        "release_year": 2011 + index % 10 if index % 2 else None, "release_month": 1 + index % 12 if index % 2 else None,
        "release_day": 1 + index % 28 if index % 2 else None, "original_format": rng.choice(["wav", "mp3", "flac", "aiff"]),
        "license": rng.choice(["all-rights-reserved", "cc-by", "cc-by-nc"]),
        "uri": f"{{base}}/tracks/{tid}", "permalink_url": f"{{base}}/people/{owner['permalink']}/{permalink}",
        "artwork_url": f"{{base}}/images/artworks/{tid}-large.png" if index % 6 else None,
        "waveform_url": f"{{base}}/images/waveforms/{tid}.png", "stream_url": f"{{base}}/tracks/{tid}/stream",
        "download_url": f"{{base}}/tracks/{tid}/download" if index % 4 == 0 else None,
        "secret_token": f"s-{tid:x}" if private else None, "secret_uri": f"{{base}}/tracks/{tid}?secret_token=s-{tid:x}" if private else None,
        "shared_to_count": index % 3 if private else 0, "user_playback_count": 0, "user_favorite": False,
        "playback_count": rng.randint(0, 250_000), "download_count": rng.randint(0, 500) if index % 4 == 0 else 0,
        "favoritings_count": 0, "comment_count": 0, "attachments_uri": f"{{base}}/tracks/{tid}/attachments",
    })

comments = []
for index in range(600):
    track = tracks[rng.randint(0, 299)]
    author = rng.choice(users)
    created = datetime.strptime(track["created_at"], "%Y/%m/%d %H:%M:%S +0000").replace(tzinfo=timezone.utc) + timedelta(hours=rng.randint(1, 400))
    cid = 500000 + index
    timed = index % 3 != 0
    comments.append({
        "id": cid, "kind": "comment", "created_at": stamp(created), "track_id": track["id"], "user_id": author["id"],
        "timestamp": rng.randint(0, track["duration"]) if timed else None, "body": phrase(rng.randint(2, 9)),
        "uri": f"{{base}}/comments/{cid}",
    })
    track["comment_count"] += 1

follows = set()
for user in users:
    for other in rng.sample(users, rng.randint(2, 9)):
        if other["id"] != user["id"]:
            follows.add((user["id"], other["id"]))
follows = sorted(follows)

favorites = set()
for user in users:
    for track in rng.sample(tracks, rng.randint(3, 15)):
        favorites.add((user["id"], track["id"]))
favorites = sorted(favorites)
for _, tid in favorites:
    tracks[tid - 20000]["favoritings_count"] += 1
for uid, _ in favorites:
    users[uid - 1000]["public_favorites_count"] += 1

# The activity feed: every type of activity, newest first; "sharing" kinds carry a note.
TYPES = ["track", "track-sharing", "playlist", "playlist-sharing"]
activities = []
for index in range(120):
    track = tracks[(index * 7) % 300]
    kind = TYPES[index % 4]
    created = START + timedelta(days=900 - index * 5, minutes=index)
    activity = {"type": kind, "created_at": stamp(created), "tags": "first, affiliated" if index % 3 == 0 else "affiliated",
                "track_id": track["id"]}
    if kind.endswith("sharing"):
        activity["sharing_note"] = {"text": phrase(6), "created_at": stamp(created)}
    activities.append(activity)

me = users[0]["id"]
catalogue = {"me": me, "users": users, "tracks": tracks, "comments": comments, "follows": follows, "favorites": favorites,
             "activities": activities}
with open("Resources/sandbox/catalogue.json", "w", encoding="utf-8") as out:
    json.dump(catalogue, out, ensure_ascii=False, indent=1)
    out.write("\n")
print(f"{len(users)} users, {len(tracks)} tracks, {len(comments)} comments, {len(follows)} follows, "
      f"{len(favorites)} favorites, {len(activities)} activities")
