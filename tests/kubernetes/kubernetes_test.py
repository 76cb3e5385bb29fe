"""Renders the Kubernetes manifests of a channel and holds them against the service and the image.

usage: kubernetes_test.py PROJECT-ROOT PROGRAM

- the references between the rendered objects resolve;
- the pod is given what the service is given, and is confined as the service is;
- the probes and paths are those of the container image;
- nginx, with the rendered settings, serves a presentation as its snippet says.
"""

import http.client
import json
import re
import shlex
import shutil
import socket
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

import yaml

ROOT = Path(sys.argv[1]).resolve()
PROGRAM = Path(sys.argv[2]).resolve()
OVERLAY = "packaging/kubernetes/overlays/ch1"
UNITS = {"Mi": 1 << 20, "Gi": 1 << 30, "M": 1 << 20, "G": 1 << 30}  # systemd's are binary too


def read(path):
    return (ROOT / path).read_text(encoding="utf-8")


def size(text):
    number, unit = re.fullmatch(r"(\d+)([A-Z]i?)", text).groups()
    return int(number) * UNITS[unit]


def unit_settings():
    """The last value of each setting of the service's unit."""
    return dict(re.findall(r"^(\w+)=(.*)$", read("packaging/systemd/vorn-hls@.service.in"),
                           re.MULTILINE))


def image_instruction(name, recipe="Containerfile"):
    return re.search(rf"^{name} (.*)$", read(f"packaging/container/{recipe}"), re.MULTILINE)[1]


def in_old_words(text):
    """A kustomization as kubectl 1.20 understands it, which is the one of Debian 12."""
    text = re.sub(r"labels:\n  - pairs:\n      (.*)\n    includeSelectors: true\n",
                  r"commonLabels:\n  \1\n", text)
    folders = re.findall(r"^  - \.\./.*\n", text, re.MULTILINE)
    for folder in folders:
        text = text.replace(folder, "")
    text = re.sub(r"^resources:\n(?!  )", "", text, flags=re.MULTILINE)
    return text + ("bases:\n" + "".join(folders) if folders else "")


def rendered():
    """The objects, and what kubectl has against the words that describe them."""
    version = subprocess.run(["kubectl", "version", "--client", "--output=yaml"], check=True,
                             stdout=subprocess.PIPE, encoding="utf-8").stdout
    old = int(re.search(r"gitVersion: v1\.(\d+)", version)[1]) < 22
    with tempfile.TemporaryDirectory() as scratch:
        shutil.copytree(ROOT / "packaging", Path(scratch) / "packaging")
        for file in Path(scratch).rglob("kustomization.yaml") if old else ():
            file.write_text(in_old_words(file.read_text(encoding="utf-8")), encoding="utf-8")
        run = subprocess.run(["kubectl", "kustomize", Path(scratch) / OVERLAY], check=True,
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE, encoding="utf-8")
    return [document for document in yaml.safe_load_all(run.stdout) if document], run.stderr


class UnixConnection(http.client.HTTPConnection):
    def __init__(self, path):
        super().__init__("localhost")
        self.path = path

    def connect(self):
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.connect(self.path)


class ManifestTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        objects, cls.said = rendered()
        cls.maps = {o["metadata"]["name"]: o["data"] for o in objects if o["kind"] == "ConfigMap"}
        (cls.deployment,) = [o for o in objects if o["kind"] == "Deployment"]
        (cls.service,) = [o for o in objects if o["kind"] == "Service"]
        cls.pod = cls.deployment["spec"]["template"]["spec"]
        cls.containers = {c["name"]: c for c in cls.pod["containers"]}
        cls.segmenter = cls.containers["segmenter"]
        cls.publisher = cls.containers["publisher"]
        cls.nginx = cls.containers["nginx"]
        cls.volumes = {v["name"]: v for v in cls.pod["volumes"]}
        cls.unit = unit_settings()

    def channel(self):
        (source,) = self.segmenter["envFrom"]
        return self.maps[source["configMapRef"]["name"]]

    def projected(self):
        """What the projected volume holds, by path, from the rendered ConfigMaps."""
        files = {}
        for source in self.volumes["nginx-conf"]["projected"]["sources"]:
            data = self.maps[source["configMap"]["name"]]
            items = source["configMap"].get("items", [{"key": k, "path": k} for k in data])
            files |= {item["path"]: data[item["key"]] for item in items}
        return files

    def mounts(self, container):
        return {m["name"]: m for m in container["volumeMounts"]}

    def test_kubectl_has_no_complaint(self):
        self.assertEqual(self.said, "")

    def test_objects_refer_to_each_other(self):
        labels = self.deployment["spec"]["template"]["metadata"]["labels"]
        self.assertEqual(self.deployment["spec"]["selector"]["matchLabels"], labels)
        self.assertEqual(self.service["spec"]["selector"], labels)
        self.assertIn("ch1", labels.values())
        (port,) = self.service["spec"]["ports"]
        self.assertEqual(port["targetPort"], self.nginx["ports"][0]["name"])
        for container in self.containers.values():
            self.assertLessEqual(set(self.mounts(container)), set(self.volumes))
        self.assertEqual(set(self.projected()),
                         {"nginx.conf", "snippets/vorn_mpegts_to_hls.conf",
                          "snippets/vorn_hls_publish.conf"})

    def test_one_pod_for_each_channel(self):
        self.assertEqual(self.deployment["spec"]["replicas"], 1)
        self.assertEqual(self.deployment["spec"]["strategy"]["type"], "Recreate")
        self.assertEqual(set(self.containers), {"segmenter", "publisher", "nginx"})

    def test_channel_has_the_variables_of_the_service(self):
        asked_for = set(re.findall(r"\$\{([A-Z]+):-", read("packaging/channel/vorn_hls_channel")))
        # Probes watch over a pod.
        self.assertEqual(set(self.channel()), asked_for - {"WATCH"})
        self.assertTrue(self.channel()["INPUT"])

    def test_options_are_the_programs(self):
        with tempfile.TemporaryDirectory() as scratch:
            options = self.channel()["OPTIONS"].split()
            run = subprocess.run([PROGRAM, *options, "--clear-old-only"], cwd=scratch,
                                 stdin=subprocess.DEVNULL, stderr=subprocess.PIPE, check=False)
        self.assertEqual(run.returncode, 0, run.stderr)

    def test_channel_conf_gives_the_same_options(self):
        conf = dict(re.findall(r"^#?(\w+)=(.*)$", read("packaging/channel/channel.conf"),
                               re.MULTILINE))  # the last OPTIONS are those for the publisher
        for name in ("PREPARE", "OPTIONS", "CAPTIONS"):
            self.assertEqual(" ".join(shlex.split(conf[name])), self.channel()[name])

    def test_image_runs_what_the_service_runs(self):
        self.assertNotIn("command", self.segmenter)
        self.assertNotIn("args", self.segmenter)
        self.assertEqual(Path(image_instruction("ENTRYPOINT").strip('[]"')).name,
                         Path(self.unit["ExecStart"]).name)
        version = re.search(r"^    VERSION ([\d.]+)$", read("CMakeLists.txt"), re.MULTILINE)[1]
        self.assertEqual(self.segmenter["image"].rsplit(":")[-1], version)
        self.assertEqual(self.publisher["image"].rsplit(":")[-1], version)

    def test_publisher_follows_the_segmenter_in_one_volume(self):
        self.assertNotIn("args", self.publisher)
        path = Path(json.loads(image_instruction("CMD", "Containerfile.publisher"))[-1])
        self.assertEqual(str(path.parent),
                         self.mounts(self.publisher)["publisher-settings"]["mountPath"])
        text = self.maps[self.volumes["publisher-settings"]["configMap"]["name"]][path.name]
        directory = image_instruction("WORKDIR")
        self.assertEqual(image_instruction("WORKDIR", "Containerfile.publisher"), directory)
        self.assertEqual(image_instruction("USER", "Containerfile.publisher"),
                         image_instruction("USER"))
        self.assertEqual(self.mounts(self.publisher)["hls"], self.mounts(self.segmenter)["hls"])
        self.assertIn(f'sources = ["{directory}"]', text)
        self.assertIn(f'output = "{directory}/', text)
        self.assertIn(f':{self.publisher["ports"][0]["containerPort"]}"', text)
        with tempfile.NamedTemporaryFile("w", suffix=".toml") as file:
            file.write(text)
            file.flush()
            run = subprocess.run([PROGRAM.with_name("vorn_hls_publish"), "--config", file.name, "--check"],
                                 stderr=subprocess.PIPE, encoding="utf-8", check=False)
        self.assertEqual((run.returncode, run.stderr), (0, ""))

    def test_publisher_is_asked_for_its_health_and_scraped(self):
        ready = self.publisher["readinessProbe"]["httpGet"]
        port = self.publisher["ports"][0]["name"]
        self.assertEqual(ready, {"path": "/healthz", "port": port})
        # What it cannot help must not end it.
        self.assertEqual(self.publisher["livenessProbe"]["httpGet"], {"path": "/metrics", "port": port})
        self.assertNotIn("startupProbe", self.publisher)
        self.assertTrue(self.service["spec"]["publishNotReadyAddresses"])

        monitor = yaml.safe_load(read("packaging/kubernetes/podmonitor.yaml"))["spec"]
        labels = self.deployment["spec"]["template"]["metadata"]["labels"]
        self.assertLessEqual(monitor["selector"]["matchLabels"].items(), labels.items())
        self.assertLessEqual(set(monitor["podTargetLabels"]), set(labels))
        (endpoint,) = monitor["podMetricsEndpoints"]
        self.assertEqual(endpoint["port"], port)
        (job,) = [label["replacement"] for label in endpoint["relabelings"]
                  if label["targetLabel"] == "job"]
        self.assertIn(f'job="{job}"', read("packaging/prometheus/vorn_hls_publish_rules.yml"))

    def test_pod_is_confined_as_the_service(self):
        pod = self.pod["securityContext"]
        for setting, value, counterpart in (
                ("User", "vorn-hls", pod["runAsNonRoot"]),
                ("SystemCallFilter", "~@privileged @resources",
                 pod["seccompProfile"] == {"type": "RuntimeDefault"})):
            self.assertEqual((self.unit[setting], counterpart), (value, True), setting)
        self.assertEqual(image_instruction("USER"), f"{pod['runAsUser']}:{pod['runAsGroup']}")
        self.assertEqual(pod["fsGroup"], pod["runAsGroup"])
        for name, container in self.containers.items():
            context = container["securityContext"]
            for setting, value, counterpart in (
                    ("NoNewPrivileges", "yes", not context["allowPrivilegeEscalation"]),
                    ("ProtectSystem", "strict", context["readOnlyRootFilesystem"]),
                    ("CapabilityBoundingSet", "", context["capabilities"] == {"drop": ["ALL"]}),
                    ("PrivateDevices", "yes", "privileged" not in context)):
                self.assertEqual((self.unit[setting], counterpart), (value, True),
                                 f"{name}: {setting}")
        for name in ("hostNetwork", "hostPID", "hostIPC"):
            self.assertNotIn(name, self.pod)
        self.assertFalse(self.pod["automountServiceAccountToken"])
        self.assertFalse([v for v in self.volumes.values() if "hostPath" in v])

    def test_pod_lives_and_ends_as_the_service(self):
        self.assertEqual((self.unit["Restart"], self.pod["restartPolicy"]), ("always", "Always"))
        self.assertEqual(self.pod["terminationGracePeriodSeconds"],
                         int(self.unit["TimeoutStopSec"]))
        memory = size(self.segmenter["resources"]["limits"]["memory"])
        self.assertEqual(memory, size(self.unit["MemoryMax"]))
        # The program's own memory has to fit beside the fragments.
        volume = self.volumes["hls"]["emptyDir"]
        self.assertEqual(volume["medium"], "Memory")
        self.assertLessEqual(size(volume["sizeLimit"]) + (64 << 20), memory)

    def test_both_see_the_presentation_and_one_writes_it(self):
        directory = image_instruction("WORKDIR")
        self.assertEqual(self.mounts(self.segmenter)["hls"]["mountPath"], directory)
        self.assertEqual(self.mounts(self.nginx)["hls"]["mountPath"], directory)
        self.assertTrue(self.mounts(self.nginx)["hls"]["readOnly"])
        self.assertFalse(self.mounts(self.segmenter)["hls"].get("readOnly", False))

    def test_probes_ask_for_the_playlists_age(self):
        directory = image_instruction("WORKDIR")
        for probe in ("startupProbe", "livenessProbe", "readinessProbe"):
            command, where, seconds = self.segmenter[probe]["exec"]["command"]
            self.assertTrue((ROOT / "packaging/channel" / Path(command).name).is_file())
            self.assertIn(f'"$root{Path(command).parent}"',
                          read("packaging/container/assemble_root"))
            self.assertEqual(where, directory)
            # The longest fragment duration, and as much again for late keyframes.
            self.assertGreaterEqual(int(seconds), 40)

    def test_nginx_serves_the_presentation(self):
        scratch = Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, scratch)
        scratch.chmod(0o755)  # nginx started by root reads as another user
        (scratch / "hls/published").mkdir(parents=True)
        for name in ("ch1.m3u8", "x.00000000.ts", ".tmp", "published/index.m3u8",
                     "published/main.1.ts", "published/.index.m3u8.sqlite3"):
            (scratch / "hls" / name).write_text(name, encoding="utf-8")
        # The container's folders become those of the test and its port a socket there. With its
        # notices nginx says when it listens.
        moved = {" /tmp/": f" {scratch}/", " /etc/vorn-hls/": f" {scratch}/conf/",
                 " /hls;": f" {scratch}/hls;", "listen 8080": f"listen unix:{scratch}/socket",
                 "error_log stderr": "error_log stderr notice"}
        for path, text in self.projected().items():
            for old, new in moved.items():
                text = text.replace(old, new)
            file = scratch / "conf" / path
            file.parent.mkdir(parents=True, exist_ok=True)
            file.write_text(text, encoding="utf-8")

        command = [arg.replace("/etc/vorn-hls/", f"{scratch}/conf/")
                   for arg in self.nginx["command"]]
        command[0] = shutil.which(command[0]) or "/usr/sbin/nginx"
        with subprocess.Popen(command, stderr=subprocess.PIPE, encoding="utf-8") as nginx:
            try:
                self.assertTrue(any("start worker process" in line for line in nginx.stderr))
                answers = {path: self.answer(scratch / "socket", path)
                           for path in ("/ch1.m3u8", "/x.00000000.ts", "/.tmp",
                                        "/published/index.m3u8", "/published/main.1.ts",
                                        "/published/.index.m3u8.sqlite3",
                                        self.nginx["livenessProbe"]["httpGet"]["path"])}
            finally:
                nginx.terminate()
        self.assertEqual(answers["/ch1.m3u8"], (200, "application/vnd.apple.mpegurl", "no-store"))
        self.assertEqual(answers["/x.00000000.ts"],
                         (200, "video/mp2t", "public, max-age=86400, immutable"))
        self.assertEqual(answers["/.tmp"][0], 403)
        self.assertEqual(answers["/published/index.m3u8"],
                         (200, "application/vnd.apple.mpegurl", "public, max-age=3"))
        self.assertEqual(answers["/published/main.1.ts"],
                         (200, "video/mp2t", "public, max-age=31536000, immutable"))
        self.assertEqual(answers["/published/.index.m3u8.sqlite3"][0], 403)
        self.assertEqual(answers["/healthz"][0], 204)

    @staticmethod
    def answer(path, url):
        connection = UnixConnection(str(path))
        connection.request("GET", url)
        response = connection.getresponse()
        response.read()
        connection.close()
        return response.status, response.headers["Content-Type"], response.headers["Cache-Control"]


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
